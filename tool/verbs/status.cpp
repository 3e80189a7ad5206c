// SPDX-License-Identifier: Apache-2.0
/** tessera status: the records in ubootenv, as they are before the library can repair them. */
#include "board/status_record.h"

#include "board/names.h"
#include "board/partition.h"
#include "board/slot_block.h"
#include "console/text.h"
#include "install/update_lock.h"
#include "internal/ota_paths.h"
#include "verbs/verb.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace {

/** A field that can be shown and set by itself. */
struct Field {
    const char* name;
    const Names* words; /* null for a slot */
    ota_veeprom_type_e selector;
    size_t offset; /* in the record */
};

#define STATUS_FIELD(name, words, selector, member)                                                                    \
    Field {                                                                                                            \
        name, words, selector, offsetof(ota_status_t, member)                                                          \
    }

constexpr std::array fields = {
    STATUS_FIELD("update", &flag_names, OTA_VEEPROM_UPDATE_FLAG, up),
    STATUS_FIELD("system", &flag_names, OTA_VEEPROM_SYS_UPDATE_FLAG, up_system),
    STATUS_FIELD("backup", &flag_names, OTA_VEEPROM_BAK_UPDATE_FLAG, up_backup),
    STATUS_FIELD("middleware", &flag_names, OTA_VEEPROM_MIDDLEWARE_UPDATE_FLAG, up_middleware),
    STATUS_FIELD("app", &flag_names, OTA_VEEPROM_APP_UPDATE_FLAG, up_app),
    STATUS_FIELD("param", &flag_names, OTA_VEEPROM_PARAM_UPDATE_FLAG, up_param),
    STATUS_FIELD("owner", &owner_names, OTA_VEEPROM_OWNER, owner),
    STATUS_FIELD("next-slot", nullptr, OTA_VEEPROM_EXPE_SLOT, next_slot),
};
#undef STATUS_FIELD

int32_t value_of(const ota_status_t& record, const Field& field) {
    int32_t value = 0;
    std::memcpy(&value, reinterpret_cast<const char*>(&record) + field.offset, sizeof value);
    return value;
}

std::string word_for(const Field& field, int32_t value) {
    if (field.words != nullptr) {
        return field.words->word(value);
    }
    const std::string letter = slot_letter(value);
    return letter.size() == 1 ? letter : letter + format(" (%u)", static_cast<uint32_t>(value));
}

Json partitions_json(const update_part_t& list, size_t count) {
    Json partitions = Json::array();
    for (size_t i = 0; i < count; ++i) {
        partitions.push_back({{"name", partition_name(list, i)},
                              {"medium", medium_names.word(list.medium[i])},
                              {"type", type_names.word(list.type[i])}});
    }
    return partitions;
}

Json status_json(const StoredStatus& status) {
    Json json = {{"valid", status.is_valid}};
    if (!status.is_valid) {
        json["fault"] = status.fault;
        return json;
    }
    for (const Field& field : fields) {
        json[field.name] = word_for(field, value_of(status.record, field));
    }
    json["partitions"] = partitions_json(status.record.update_part, listed_partitions(status.record));
    return json;
}

Json versions_json(const StoredVersions& versions) {
    if (!versions.is_valid) {
        return {{"valid", false}, {"fault", versions.fault}};
    }
    return {{"valid", true},
            {"secure_version", versions.record.sec_ver},
            {"raise_secure", versions.record.sec_up_flag == 1},
            {"non_secure_version", versions.record.nosec_ver},
            {"raise_non_secure", versions.record.nosec_up_flag == 1}};
}

/** What an update is about: its slot or, where it goes to none, its partitions. */
std::string subject(const ota_status_t& record) {
    const update_part_t& list = record.update_part;
    std::string names;
    for (size_t i = 0; i < listed_partitions(record); ++i) {
        if (list.type[i] == AB) {
            names.clear();
            break;
        }
        names += (names.empty() ? "" : ", ") + partition_name(list, i);
    }
    return names.empty() ? "slot " + slot_letter(static_cast<int32_t>(record.next_slot)) : names;
}

/** One sentence from the general flag and the owner. */
std::string headline(const ota_status_t& record) {
    const std::string update =
        record.owner == NORMAL_BOOT ? "an update" : "an update by the " + owner_names.word(record.owner);
    const std::string what = subject(record);
    switch (record.up) {
    case OTA_FLAG_NORMAL:
        return "no update is under way";
    case OTA_FLAG_BURN:
        return update + " was writing to " + what + " and has not ended";
    case OTA_FLAG_VERIFY:
        return update + " was reading back " + what + " and has not ended";
    case OTA_FLAG_VERIFIED:
        return update + " had read back " + what + " and was about to end";
    default:
        return "the state of the update is unknown";
    }
}

std::string status_text(const StoredStatus& status) {
    if (!status.is_valid) {
        return std::string("the stored update status is not valid (") + status.fault +
               "): its contents are unknown; the next change recreates it\n";
    }
    std::string text = headline(status.record) + "\n\n";
    for (const Field& field : fields) {
        text += format("%-12s%s\n", field.name, word_for(field, value_of(status.record, field)).c_str());
    }
    const update_part_t& list = status.record.update_part;
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < listed_partitions(status.record); ++i) {
        rows.push_back({partition_name(list, i), medium_names.word(list.medium[i]), type_names.word(list.type[i])});
    }
    text += rows.empty() ? "" : "\n" + table({"partition", "medium", "type"}, rows);
    if (list.num > rows.size()) {
        text += format("the list claims %u partitions, but only %zu can be stored\n", list.num, rows.size());
    }
    return text;
}

std::string versions_text(const StoredVersions& versions) {
    if (!versions.is_valid) {
        return std::string("\nthe stored anti-rollback versions are not valid (") + versions.fault +
               "): their values are unknown";
    }
    const antirollback_ver_t& record = versions.record;
    if (versions.is_missing()) {
        return "\nthe anti-rollback record holds versions 0; no counter is to be raised";
    }
    const auto line = [](const char* name, uint32_t version, bool raise) {
        return format("%-12sversion %u, counter %s\n", name, version, raise ? "to be raised" : "stays");
    };
    return "\nanti-rollback versions of the last installed package:\n" +
           line("secure", record.sec_ver, record.sec_up_flag == 1) +
           line("non-secure", record.nosec_ver, record.nosec_up_flag == 1);
}

/** Why the board runs another slot than the last update's; a slot in which an installation was cut is neither. */
std::optional<Slot> find_given_up_slot(const StoredStatus& status) {
    try {
        const SlotBlock block = read_slot_block();
        const Slot* slot = given_up_slot(block);
        return slot != nullptr && !status.is_cut_in(slot->number) ? std::optional(*slot) : std::nullopt;
    } catch (const Failure&) {
        return std::nullopt;
    }
}

std::string given_up_text(const std::optional<Slot>& slot) {
    return slot ? "\n\n" + slot->name() +
                      " was given up or marked bad: it has the highest priority and no boots left, and slot " +
                      slot_letter(ota_get_cur_slot()) + " is running"
                : "";
}

void show_status(const Context& context) {
    const StoredStatus status = read_status();
    const StoredVersions versions = read_stored_versions();
    const auto given_up = find_given_up_slot(status);
    context.show({{"status", status_json(status)},
                  {"anti_rollback", versions_json(versions)},
                  {"given_up_slot", given_up ? Json(given_up->number) : Json()}},
                 status_text(status) + versions_text(versions) + given_up_text(given_up));
}

const Field& find_field(const std::string& name) {
    const auto found =
        std::find_if(fields.begin(), fields.end(), [&](const Field& field) { return name == field.name; });
    if (found == fields.end()) {
        throw Failure(ExitCode::usage, "unknown field " + name, "tessera status    (lists the fields)");
    }
    return *found;
}

std::optional<int32_t> number_from(const std::string& word) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    const bool is_whole = error == std::errc() && end == word.data() + word.size();
    return is_whole ? std::optional(static_cast<int32_t>(number)) : std::nullopt;
}

/** A value by name or number; only --raw accepts a number without a name. */
int32_t field_value(const Field& field, const std::string& word, bool raw) {
    const auto number = number_from(word);
    if (raw && number) {
        return *number;
    }
    const auto named = field.words != nullptr ? field.words->value(word) : slot_from_word(word);
    if (named) {
        return *named;
    }
    if (field.words != nullptr && number && !field.words->word(*number).starts_with("unknown")) {
        return *number;
    }
    const std::string choices = field.words != nullptr ? field.words->choices() : "a slot, a to d";
    throw Failure(ExitCode::usage, std::string(field.name) + " must be " + choices,
                  raw ? "--raw takes numbers" : "--raw stores any number");
}

/** The library writes past bad blocks and reads at a fixed place: with one before the record, the two differ. */
void demand_kept(bool is_kept) {
    if (!is_kept) {
        throw Failure(ExitCode::device, std::string("the record did not persist in ") + ota_ubootenv_partition,
                      "tessera board --check    (reports whether a bad block precedes it)");
    }
}

void set_field(const std::string& name, const std::string& word, bool raw) {
    const Field& field = find_field(name);
    auto value = static_cast<uint32_t>(field_value(field, word, raw));
    if (!read_status().is_valid) {
        console::note("the stored update status was not valid and is recreated");
    }
    require(ExitCode::device, "cannot store " + name, [&] { return ota_set_veeprom_flag(field.selector, &value); });
    sync_partition(ota_ubootenv_partition);
    const StoredStatus now = read_status();
    demand_kept(now.is_valid && static_cast<uint32_t>(value_of(now.record, field)) == value);
}

void reset_records() {
    (void)running_slot(); /* which the new status names */
    (void)existing_partition(ota_ubootenv_partition);
    require(ExitCode::device, "cannot recreate the records", [] { return ota_set_veeprom_flag_default(); });
    sync_partition(ota_ubootenv_partition);
    demand_kept(read_status().is_valid && read_stored_versions().is_valid);
}

struct SetOptions {
    std::string field;
    std::string value;
    bool raw = false;
    std::string lock_file = default_lock_file;
};

void declare_set(Command& verb, Context& context) {
    Command& command = add_command(verb, "set", "Store one field of the status");
    auto options = std::make_shared<SetOptions>();
    add_word(command, "FIELD", options->field, "update, system, backup, middleware, app, param, owner or next-slot");
    add_word(command, "VALUE", options->value,
             "normal, burn, verify or verified; owner: none, tool or service; next-slot: a letter");
    add_flag(command, "--raw", options->raw, "Store any number, even one without a name");
    add_lock(command, options->lock_file);
    on_command(command, context, [&context, options] {
        const UpdateLock lock(options->lock_file, "tessera status set");
        set_field(options->field, options->value, options->raw);
        show_status(context);
    });
}

} // namespace

void declare_status(Command& verb, Context& context) {
    allow_command(verb);
    on_command(verb, context, [&context] { show_status(context); });
    declare_set(verb, context);
    Command& reset = add_command(verb, "reset", "Recreate both records");
    auto lock_file = std::make_shared<std::string>(default_lock_file);
    add_lock(reset, *lock_file);
    on_command(reset, context, [&context, lock_file] {
        const UpdateLock lock(*lock_file, "tessera status reset");
        reset_records();
        show_status(context);
    });
}
