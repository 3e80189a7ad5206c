// SPDX-License-Identifier: Apache-2.0
#include "board.h"

#include <filesystem>
#include <map>
#include <openssl/err.h>
#include <sstream>

namespace fs = std::filesystem;
using std::string;

/* A package may claim to need any amount of memory. */
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

/* Fails once, when the countdown reaches 0. */
static int strdups_left = -1;
char* strdup(const char* text) noexcept {
    return strdups_left-- == 0 ? nullptr : strndup(text, PTRDIFF_MAX);
}

namespace {

constexpr uint64_t huge = UINT64_MAX;
const string oid = " -addext 1.3.6.1.4.1.4128.2100.", secure = oid + "1=", non_secure = oid + "2=";

/* Makes packages, valid and invalid ones. */
string entry(const string& uuid, uint64_t offset, uint64_t size) {
    return uuid + bytes_of(offset) + bytes_of(size) + bytes_of(huge);
}
string known(size_t row, uint64_t offset, uint64_t size) {
    return entry(bytes_of(toc_entries[row].uuid), offset, size);
}
const string head = bytes_of(0xaa640001) + string(12, '\xff'), end = entry(string(16, '\0'), huge, huge);

string padded(const string& bytes, size_t size, char fill = '\0') {
    return (bytes + string(size, fill)).substr(0, size);
}
string miniboot(const string& first, const string& second, char fill = '\0') {
    return padded(first, 0x40000, fill) + padded(second, 0x200000, fill);
}

class AntiRollback : public Board {
protected:
    AntiRollback() {
        set_cmdline("veloxboot.medium=MMC");
        add_partition("ubootenv", 0x40000, '\xff');
        write_file("/tmp/config", "[req]\ndistinguished_name=n\n[n]\n");
    }

    static void run(const string& command) {
        ASSERT_EQ(std::system((command + " >/tmp/output 2>&1").c_str()), 0) << command << read_file("/tmp/output");
    }

    /* A certificate by openssl with extensions such as secure + "ASN1:INTEGER:3". */
    static string certificate(const string& extensions) {
        const string request = "openssl req -x509 -config config -newkey ed25519 -noenc -keyout key -subj /CN=x";
        run("cd /tmp && " + request + " -outform DER -out der" + extensions);
        return read_file("/tmp/der");
    }
    static string version(int number) {
        return certificate((number % 2 == 0 ? secure : non_secure) + "ASN1:INTEGER:" + std::to_string(number));
    }

    /* A package by fiptool: certificates by their row in the table, and an image that is not a certificate. */
    static string packed(const std::map<size_t, string>& certificates) {
        string command = "rm -f /tmp/package; fiptool create --nt-fw /tmp/config";
        for (const auto& [row, der] : certificates) {
            command += row == 3   ? " --blob uuid=dc0e510f-7ece-4aeb-92b5-04fc1b96de14,file="
                       : row == 8 ? " --blob uuid=985c5496-917e-4e83-9670-2be943bfed49,file="
                                  : string(" --") + toc_entries[row].cmdline_name + " ";
            command += write_file("/tmp/part" + std::to_string(row), der);
        }
        run(command + " /tmp/package");
        return read_file("/tmp/package");
    }

    /* `text` followed by the logged errors and warnings; other lines are dropped. */
    static string with_log(string text) {
        infos_.clear();
        for (const string& line : log()) {
            line.starts_with("info ") ? infos_ += line.substr(5) + "\n"
                                      : text += "; " + (line.starts_with("error ") ? line.substr(6) : line);
        }
        return text;
    }
    static inline string infos_;

    /* The version of each image, or "refused", followed by the logged errors and warnings. */
    static void expect(const std::vector<std::pair<string, string>>& cases, uint32_t kind = NOSEC_UBOOT_IMG) {
        for (const auto& [image, outcome] : cases) {
            uint32_t found = 0;
            const int32_t result = vx_fip_img_anti_read(write_file("/tmp/image", image).c_str(), kind, &found);
            EXPECT_EQ(with_log(result == 0 ? std::to_string(found) : "refused"), outcome) << &image - &cases[0].first;
        }
    }

    /* The verdict over parts such as "uboot_a=image", with the errors and warnings, and what is left in
     * the scratch directory in brackets. Nothing but a pass changes the record. */
    static string verdict(const string& parts, const string& scratch = "/tmp/scratch") {
        update_info_t update{};
        update.parse_flag = 1;
        update.sec_up_flag = 257;
        update.nosec_up_flag = 256;
        std::istringstream words(parts);
        for (string name, file; std::getline(words >> std::ws, name, '=') && words >> file; ++update.update_size) {
            name.copy(update.update_partition[update.update_size], 32);
            file.copy(update.partition_info[update.update_size].part_file, 64);
            update.partition_info[update.update_size].have_anti_ver = name != "unversioned_uboot";
            update.partition_info[update.update_size].medium = name == "vbmeta_in_nand" ? OTA_NAND : OTA_EMMC;
        }
        EXPECT_EQ(chdir("/"), 0); /* a failed extraction does not return to the old directory */
        fs::create_directories(scratch);
        const string before = read_partition("ubootenv");
        const int32_t result = verify_antirollback_version(&update, "/tmp/update.zip", scratch.c_str());
        EXPECT_TRUE(result == 0 || read_partition("ubootenv") == before);
        string text = with_log(result == 0 ? "pass" : "refused");
        for (const fs::directory_entry& entry : fs::directory_iterator(scratch)) {
            text += " [" + entry.path().filename().string() + "]";
        }
        fs::remove_all(scratch);
        return text;
    }
};

TEST_F(AntiRollback, certificates_have_to_agree_with_the_first_of_the_table) {
    const string bare = certificate(""), three = version(3), four = version(4), open = version(255);
    const string differ = " antirollback version is 4, but other version is 3";
    std::map<size_t, string> all;
    for (size_t last = 0; last < 9; ++last) {
        for (const auto& [first, der] : all) {
            expect({{packed({{last, four}, {first, der}}),
                     string("refused; ") + toc_entries[last].cmdline_name + differ}});
        }
        all[last] = three;
        expect({{packed(all), "3"}});
    }
    expect({
        {packed({}), "255"},
        {packed({{0, open}, {8, open}}), "255"},
        {packed({{0, open}, {4, three}}), "3"},
        {packed({{0, three}, {4, bare}, {5, three}}), "3"},
        {packed({{0, bare}, {4, four}}), "refused; tb-fw-cert antirollback version is 4, but other version is 0"},
        {packed({{0, three}, {4, open}}), "refused; tb-fw-cert antirollback version is 255, but other version is 3"},
    });
}

TEST_F(AntiRollback, versions_in_every_encoding_of_an_integer) {
    const auto with = [](const string& extensions) { return packed({{7, certificate(extensions)}}); };
    const string damaged = "0; ASN1_INTEGER decode failed";
    ERR_raise(ERR_LIB_USER, 1); /* the caller's own */
    const unsigned long raised = ERR_peek_error();
    expect({
        {with(secure + "ASN1:INTEGER:-1"), "4294967295"},
        {with(secure + "ASN1:INTEGER:0x100000005"), "5"},
        {with(non_secure + "ASN1:INTEGER:0xFFFFFFFFFFFFFFFE"), "4294967295"}, /* libcrypto: -1 past 63 bits */
        {with(non_secure + "DER:0282000107"), "7"},
        {with(non_secure + "DER:0201070500"), "7"},
        {with(non_secure + "DER:0200"), damaged},
        {with(secure + "DER:0500" + non_secure + "ASN1:INTEGER:3"), damaged},
        {with(non_secure + "ASN1:INTEGER:4" + secure + "ASN1:INTEGER:3"), "4"},
        {with(oid + "3=ASN1:INTEGER:9" + oid + "1.1=ASN1:INTEGER:9" + secure + "ASN1:INTEGER:3"), "3"},
    });
    EXPECT_EQ(ERR_peek_last_error(), raised);
    EXPECT_EQ(ERR_get_error(), raised);
}

TEST_F(AntiRollback, sizes_and_offsets_in_a_package) {
    const string der = version(3), past_end = "refused; FI is corrupted", wraps = "refused; FIP is corrupted";
    const string short_file = "refused; FIP /tmp/image is truncated";
    const string no_end = "; FIP does not have a ToC terminator entry";
    const string no_memory = "; malloc: failed to allocate image buffer, is FIP file corrupted?";
    const string no_certificate = "refused; cert DER decode failed; invalid cert, tb-fw-cert";
    const uint64_t size = der.size();
    expect({
        {"", short_file},
        {head.substr(0, 15), short_file},
        {"?" + head, "refused; /tmp/image is not a FIP file"},
        {head + end, "255"},
        {head + end.substr(0, 39), "255" + no_end},
        {head + entry("not one of them.", huge, huge) + end + known(4, huge, huge), "255"},
        {head + known(4, 96, size) + end + der, "3"},
        {head + known(4, 96, size) + end + der.substr(1), past_end},
        {head + known(4, 96, size + 6) + end + der + "trailing", "3"},
        {head + known(4, 56, size) + der, "3" + no_end},
        {head + known(4, 0, 96) + end, no_certificate},
        {head + known(4, 96, 0) + end, no_certificate},
        {head + known(4, huge, 1) + end, wraps},
        {head + known(4, huge - 0x10000, 0x10000) + end, past_end},
        {head + known(4, 0, huge) + end, "255" + no_memory},
        {head + known(4, 136, size) + known(5, 136, 1ULL << 62) + end + der, "3" + no_memory},
        {head + known(4, 136, size) + known(4, 136, size) + end + der, wraps},
    });
}

TEST_F(AntiRollback, both_packages_of_a_miniboot_image) {
    const string first = packed({{5, version(3)}}), second = packed({{4, version(3)}});
    const std::vector<std::pair<string, string>> cases = {
        {miniboot(first, second), "3"},
        {miniboot(first, "????" + second.substr(4)), "3"},
        {miniboot(first, ""), "3"},
        {miniboot(first, "", '\xff'), "3; FIP does not have a ToC terminator entry"},
        {miniboot(first, second).substr(0, 0x23ffff), "refused; miniboot fip file is error size. 2359295"},
        {miniboot(first, packed({{4, version(4)}})),
         "refused; soc-fw-cert antirollback version is 3, but other version is 4"},
        {miniboot(first, first), "refused; FIP is corrupted"},
        {miniboot(head + known(0, 0x40000, 1) + end, "", '\xff'), "refused; FI is corrupted"},
        {miniboot(first, head + known(0, 0x200000, 1) + end) + "trailing", "refused; FI is corrupted"},
    };
    expect(cases, SEC_MINIBOOT_IMG);
    expect({{first, "refused; error image type: 2"}}, 2);
    uint32_t found = 0;
    EXPECT_EQ(vx_fip_img_anti_read("/tmp", 1, &found) + vx_fip_img_anti_read("/tmp/none", 2, &found), -2);
    EXPECT_EQ(vx_fip_img_anti_read(nullptr, 0, &found) + vx_fip_img_anti_read("/tmp/none", 0, nullptr), -2);
    EXPECT_TRUE(with_log("").starts_with(
        "; Failed to read /tmp; fopen /tmp/none failed; invalid params, vx_fip_img_anti_read, "));
}

/* The sanitizer reports leaks. */
TEST_F(AntiRollback, a_failed_allocation_leaks_nothing) {
    for (int n = 0; n < 18; ++n) {
        strdups_left = n;
        const string what = n % 2 == 0 ? "name" : "command line name";
        expect({{head + end, "refused; strdup: failed to allocate memory for image " + what}});
    }
}

TEST_F(AntiRollback, the_first_failed_condition_decides_the_verdict) {
    const string boot = miniboot(packed({{4, version(3)}}), packed({{5, version(3)}})), major = padded("AVB0\1", 120);
    const auto vbmeta = [](uint64_t index) { return padded("AVB0", 112) + bytes_of(htobe64(index)); };
    const char* names[] = {"m3", "u3", "u255", "v0", "v3", "v255", "wide", "major", "short", "tiny"};
    const string files[] = {
        boot,  packed({{7, version(3)}}), head + end, vbmeta(0), vbmeta(3), vbmeta(255), vbmeta(0x100000003),
        major, vbmeta(3).substr(0, 119),  "AVB0"};
    for (size_t i = 0; i < std::size(names); ++i) {
        write_file(string("/tmp/update/") + names[i], files[i]);
    }
    fs::create_symlink("/tmp/update/u3", "/tmp/update/link");
    fs::create_symlink("nowhere", "/tmp/update/lost");
    run("cd /tmp/update && zip -q1y /tmp/update.zip *");
    const string sound = "miniboot=m3 uboot_a=u3 vbmeta_a=v3", low = "refused; antirollback version check failed!";
    const string failed = "; antirollback version get failed!";
    const string twice = " is inconsistent" + failed, index = "refused; image /tmp/scratch/";
    const std::tuple<uint32_t, uint32_t, string, string> cases[] = {
        {3, 3, sound, "pass"},
        {3, 4, sound, low},
        {0, UINT32_MAX, sound, low},
        {1, 0, "vbmeta=v3 uboot=u3", low},
        {9, 9, "uboot=u3", "refused; uboot and vbmeta versions are inconsistent" + failed},
        {0, 0, "unversioned_uboot=none kernel=u3", "pass"},
        {3, 0, "vbmeta_of_miniboot=m3", "pass"},
        {0, 3, "uboot=u255 uboot=u3 vbmeta=v3", "pass"},
        {0, 255, "uboot=u255 vbmeta=v255", "pass"},
        {0, 0, "miniboot=u255", "refused; miniboot fip file is error size. 56" + failed + " [u255]"},
        {0, 3, "vbmeta=v0 vbmeta=v3 uboot=u3", "pass"},
        {0, 0, "vbmeta=v3 vbmeta=v0", index + "v0 antirollback versions 0:3" + twice + " [v0]"},
        {0, 3, "vbmeta=wide uboot=u3", "pass"},
        {0, 0, "vbmeta=v3 vbmeta=wide", index + "wide antirollback versions 4294967299:3" + twice + " [wide]"},
        {0, 0, "vbmeta=major", "refused; warning /tmp/scratch/major is not avb image!" + failed + " [major]"},
        {0, 0, "vbmeta=short", "refused; get avb image antirollback version error!" + failed + " [short]"},
        {0, 0, "vbmeta=tiny", "refused; get avb image magic error!" + failed + " [tiny]"},
        {0, 0, "vbmeta_in_nand=v3", "refused; Medium 3 does not support." + failed + " [v3]"},
        {0, 0, "uboot=link", "refused; link is not a regular file in the package; Uncompress link failed" + failed},
        {0, 3, string(32, 'k') + "=v0 " + sound, "pass"},
        {0, 3, "kernel=" + string(64, 'n') + " " + sound,
         "refused; warning cannot find " + string(64, 'n') + " in package, error -100; Uncompress " + string(64, 'n') +
             " failed" + failed},
    };
    for (const auto& [sec, nosec, parts, outcome] : cases) {
        efuses() = {.sec = sec, .nosec = nosec, .calls = {}};
        EXPECT_EQ(verdict(parts), outcome) << parts;
        EXPECT_EQ(efuses().calls.size(), outcome.find(failed) == string::npos ? 2U : 0U);
    }
    efuses() = {};
    EXPECT_EQ(verdict(sound), "pass");
    EXPECT_EQ(infos_, "miniboot image file version: 3\nuboot image file version: 3\nvbmeta image file version: 3\n"
                      "antirollback version check success!\n");
    const string record("\1\0\0\0\3\0\0\0\3\0\0\0", 12); /* low 8 bits of the flags */
    EXPECT_EQ(read_partition("ubootenv").substr(0x30880, 12), record);
    const string deep = "/tmp/" + string(251, 's'), cut = deep.substr(0, 255); /* what is left of an image's path */
    EXPECT_EQ(verdict("kernel=v0", deep), "pass; Remove " + cut + " failed [v0]");
    EXPECT_EQ(verdict("vbmeta=v3", deep), "refused; open file " + cut + " failed!" + failed + " [v3]");
    EXPECT_EQ(verdict("uboot=u3", deep), "refused; fopen " + cut + " failed" + failed + " [u3]");
    /* Only what was extracted for the check is removed. */
    write_file("/tmp/scratch/lost", files[1]);
    EXPECT_EQ(verdict("uboot=lost"),
              "refused; lost is not a regular file in the package; Uncompress lost failed" + failed + " [lost]");
    const string other = "the path of u3 is too long, and its cut form is that of another file";
    write_file(cut, files[1]);
    EXPECT_EQ(verdict("uboot=u3", deep), "refused; " + other + failed + " [u3]");
    EXPECT_TRUE(fs::remove(cut));
    efuses().nosec_read_result = 1;
    EXPECT_EQ(verdict(sound), "refused; nosecure antirollback version read failed" + failed);
    efuses().sec_read_result = 1;
    EXPECT_EQ(verdict(sound), "refused; secure antirollback version read failed" + failed);
    efuses() = {};
    fs::permissions(by_name + "ubootenv", fs::perms(0444));
    EXPECT_TRUE(verdict(sound).ends_with("; set antirollback version in veeprom failed"));

    update_info_t update{};
    expect_call(verify_antirollback_version(nullptr, "/tmp/update.zip", "/tmp"), -1,
                {"error 'update_info' is a null pointer."});
    expect_call(verify_antirollback_version(&update, nullptr, nullptr), -1, {"info no parse json file!"});
    update.parse_flag = 1;
    EXPECT_EQ(verify_antirollback_version(&update, nullptr, nullptr), -1); /* the record cannot be written */
    fs::permissions(by_name + "ubootenv", fs::perms(0644));
    EXPECT_EQ(verify_antirollback_version(&update, nullptr, nullptr), 0) << "there is nothing to extract";
    log();
    update.partition_info[0].have_anti_ver = 1;
    update.update_size = 1;
    for (const char* const scratch : {"/tmp", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(verify_antirollback_version(&update, nullptr, scratch), -1);
        EXPECT_EQ(with_log(""), "; src is null; Uncompress  failed" + failed);
    }
    for (const int32_t size : {33, -1}) {
        update.update_size = size;
        EXPECT_EQ(verify_antirollback_version(&update, "/tmp/update.zip", "/tmp"), -1);
        EXPECT_EQ(with_log(""), "; update partition number " + std::to_string(size) + " is out of range" + failed);
    }
}

TEST_F(AntiRollback, efuses_are_written_where_the_flag_is_1) {
    const std::tuple<antirollback_ver_t, int32_t, int32_t, int32_t, std::vector<string>> cases[] = {
        {{2, 255, 5, 6, 0}, -1, -1, 0, {}},
        {{1, 0, 5, 6, 0}, 0, -1, 0, {"write sec 5"}},
        {{1, 1, 5, 6, 0}, 0, 1, 0, {"write sec 5", "write nosec 6"}},
        {{1, 1, 5, 6, 0}, 0, -1, -1, {"write sec 5", "write nosec 6"}},
        {{1, 1, 5, 6, 0}, 1, 0, -1, {"write sec 5"}},
    };
    for (auto [versions, sec_result, nosec_result, result, calls] : cases) {
        efuses() = {.sec_write_result = sec_result, .nosec_write_result = nosec_result, .calls = {}};
        EXPECT_EQ(set_efuse_antirollback(&versions), result);
        EXPECT_EQ(efuses().calls, calls);
        const char* kind = calls.size() == 1 ? "Secure" : "nosecure";
        EXPECT_EQ(log(), result == 0 ? Lines{} : Lines{string("error ") + kind + " antirollback version write failed"});
    }
    EXPECT_EQ(set_efuse_antirollback(nullptr) + get_efuse_antirollback(nullptr), -2);
}

} // namespace
