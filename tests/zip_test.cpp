// SPDX-License-Identifier: Apache-2.0
/** Packages, valid and hostile: what is written to disk, what is not, and what is logged. */
#include "board.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <zlib.h>

namespace fs = std::filesystem;

namespace {

const std::string box = "/tmp/box", dest = box + "/dest", outside = box + "/outside";

Lines split(const std::string& text, char separator) {
    Lines parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

std::string le(uint64_t value, size_t bytes) {
    return {reinterpret_cast<const char*>(&value), bytes};
}

/** What a field of 32 bits holds, and what a zip64 field holds for it. */
std::string in_32(uint64_t value) {
    return le(std::min<uint64_t>(value, UINT32_MAX), 4);
}

std::string in_64(uint64_t value) {
    return value >= UINT32_MAX ? le(value, 8) : "";
}

/**
 * Writes a package described by words, one per entry: a name, then in any order: "=data" ("x" is the
 * default), "*bytes" of x, ">target" for a link, "@mode", "+bytes" that are claimed but missing, and "~traits"
 * with z: deflated, s: sizes after the data, 6: size in a zip64 field, c: wrong checksum, t: torn data, m: unknown
 * method, b: a field that ends past the extra fields, h: the claimed bytes exist, as a hole in the file.
 */
std::string put(const std::string& words, const std::string& package = "p.zip") {
    std::ofstream file(box + "/" + package, std::ios::binary);
    std::string central;
    const Lines entries = split(words, ' ');
    for (const std::string& word : entries) {
        std::map<char, std::string> is = {{'=', "x"}, {'@', "100644"}, {'+', "0"}};
        size_t end = word.find_first_of("=*>@+~");
        const std::string name = word.substr(0, end);
        for (size_t at = end; at < word.size(); at = end) {
            end = word.find_first_of("=*>@+~", at + 1);
            is[word[at]] = word.substr(at + 1, end - at - 1);
        }
        const auto has = [&](char trait) { return is['~'].find(trait) != std::string::npos; };
        const std::string mode = is.contains('>') ? "120777" : is['@'];
        std::string data = is.contains('>')   ? is['>']
                           : is.contains('*') ? std::string(std::stoul(is['*']), 'x')
                                              : is['='];
        const int64_t claimed = std::stoll(is['+']), hole = has('h') ? claimed : 0;
        const uint64_t size = data.size() + static_cast<uint64_t>(claimed);
        const auto* bytes = reinterpret_cast<const Bytef*>(data.data());
        const uLong crc = crc32(0, bytes, static_cast<uInt>(data.size())) ^ (has('c') ? 1 : 0);
        if (has('z')) {
            Bytef packed[20000];
            uLongf length = sizeof packed;
            compress(packed, &length, bytes, data.size());
            data.assign(packed + 2, packed + length - 4); /* the bare deflate stream */
            data[0] = has('t') ? '\xff' : data[0];
        }
        const auto at = static_cast<uint64_t>(file.tellp()), packed_size = data.size() + static_cast<uint64_t>(hole);
        const std::string zip64 = (has('6') ? le(size, 8) : "") + in_64(packed_size) + in_64(at);
        const std::string foreign = le(0x5455, 2) + le(5, 2) + "dates"; /* precedes it */
        const std::string extra = !zip64.empty() ? foreign + le(1, 2) + le(zip64.size(), 2) + zip64
                                  : has('b')     ? le(0x5455, 2) + le(99, 2)
                                                 : "";
        const std::string sums = le(crc, 4) + in_32(packed_size) + le(has('6') ? UINT32_MAX : size, 4);
        const uint64_t method = has('m') ? 99 : has('z') ? 8 : 0;
        const std::string head = le(has('s') ? 8 : 0, 2) + le(method, 2) + le(0x58B169C8, 4); /* 2024-05-17 13:14:16 */
        central += "PK\1\2" + le(0x140314, 4) + head + sums + le(name.size(), 2) + le(extra.size(), 2) + le(0, 6);
        central += le(std::stoul(mode, nullptr, 8) << 16, 4) + in_32(at) + name + extra;
        file << "PK\3\4" + le(20, 2) + head + (has('s') ? std::string(12, '\0') : sums) + le(name.size(), 4) + name;
        file << data;
        file.seekp(hole, std::ios::cur);
        file << (has('s') ? "PK\7\b" + sums : "");
    }
    const auto at = static_cast<uint64_t>(file.tellp()), count = entries.size();
    file << central;
    if (at >= UINT32_MAX) {
        file << "PK\6\6" + le(44, 8) + le(0x2D002D, 4) + le(0, 8) + le(count, 8) + le(count, 8);
        file << le(central.size(), 8) + le(at, 8) + "PK\6\7" + le(0, 4) + le(at + central.size(), 8) + le(1, 4);
    }
    file << "PK\5\6" + le(0, 4) + le(count << 16 | count, 4) + le(central.size(), 4) + in_32(at) + le(0, 2);
    return box + "/" + package;
}

class Zip : public Board {
protected:
    Zip() {
        umask(022);
        fs::current_path("/");
        fs::remove_all(box);
        fs::create_directories(outside + "/dir");
        write_file(outside + "/file", "keep");
    }

    /** What is below a directory, in order: "d755 a ;f644 a/b text;f644 a/c *20000;l777 a/d target;". */
    static std::string tree(const std::string& root) {
        std::set<std::string> lines;
        for (const fs::directory_entry& at : fs::recursive_directory_iterator(root)) {
            const std::string text = at.is_symlink() ? fs::read_symlink(at.path()).string() : read_file(at.path());
            std::ostringstream line;
            line << "fdl"[at.is_symlink() ? 2 : at.is_directory()] << std::oct
                 << unsigned(at.symlink_status().permissions()) << ' ' << at.path().lexically_relative(root).string();
            const std::string count = "*" + std::to_string(std::ranges::count(text, 'x'));
            lines.insert(line.str() + " " + (text.size() > 99 ? count : text) + ";");
        }
        return std::accumulate(lines.begin(), lines.end(), std::string());
    }

    /** Unpacks, and fails if anything changes elsewhere. */
    static int32_t unpack(const std::string& package, bool afresh = true) {
        fs::remove_all(afresh ? dest : "");
        fs::create_directories(dest);
        const auto elsewhere = [] {
            const auto siblings = std::distance(fs::directory_iterator(box), {});
            return std::tuple(tree(outside), siblings, fs::current_path());
        };
        const auto before = elsewhere();
        log();
        const int32_t result = vx_uncompress(package.c_str(), dest.c_str());
        EXPECT_EQ(elsewhere(), before);
        return result;
    }
};

TEST_F(Zip, each_kind_of_entry_is_extracted_as_packed) {
    put("d/ d/f=one l>d/f b\\s@20644 gone/dir/ gone/l>d no/dir/f*20000~z@104751 stored64~6*9000 "
        "trailer*20000~zs@100640 "
        "deflated64~z6*20000 bare@0");
    EXPECT_EQ(unpack(box + "/p.zip"), 0);
    EXPECT_EQ(log()[2], "error d symlink error");
    EXPECT_EQ(tree(dest),
              "d755 d ;d755 no ;d755 no/dir ;f0 bare ;f640 trailer *20000;f644 b\\s x;f644 deflated64 *20000;"
              "f644 stored64 *9000;f751 no/dir/f *20000;f777 d/f one;l777 l d/f;");
    const auto expect_date = [](int year) {
        std::tm date{16, 14, 13, 17, 4, year, 0, 0, -1, 0, nullptr};
        struct stat status {};
        stat((dest + "/no/dir/f").c_str(), &status);
        EXPECT_EQ(status.st_mtime, std::mktime(&date));
    };
    expect_date(2024 - 1900);
    change_file_date((dest + "/no/dir/f").c_str(), 0, {16, 14, 13, 17, 4, 1900});
    expect_date(1900);
    /* Files are replaced, links are not. */
    ended(unpack(put("d/f=three l>no bare"), false), -1, "error error opening bare");
    EXPECT_EQ(read_file(dest + "/l"), "three");
    EXPECT_NE(tree(dest).find(";f644 bare x;"), std::string::npos); /* the mode is set nevertheless */
    const std::string dir(250, 'n');                                /* the longest name */
    EXPECT_EQ(unpack(put(dir + "/5678")), 0);
    EXPECT_EQ(tree(dest), "d755 " + dir + " ;f644 " + dir + "/5678 x;");
}

TEST_F(Zip, nothing_is_written_outside_the_destination) {
    std::string deep, at; /* longer than a path may be, with few enough links that a walk may count them twice */
    for (int i = 0; i < 18; ++i) {
        const std::string step = at + std::string(120, 'a') + "/" + std::string(120, 'b');
        const std::string name = "l" + std::to_string(i);
        deep += step + "/f " + name + ">" + step + " ";
        at = name + "/";
    }
    deep += at + "out>" + outside + " " + at + "out/new";
    const std::string hostile =
        "../new;a/../../new;a/b/../../../new;..;../;/;../outside/;/tmp/box/outside/new;/tmp/box/new/f;../new/../dest/f;"
        "l>a/../../outside a/../l/new;a/ l>a/../../outside a/../l/new;../x\\y/../dest/f;l>/tmp/box/outside/new "
        "l;/tmp/box/outside/new>x;l>../outside l/new;"
        "l>/tmp/box/outside .//l/dir/new;l>../outside l/new/;l>../outside l/new>file;l>/proc/self/cwd/../outside/dir "
        "l;l>../outside/file l;"
        "l>../outside/new l;a>b b>c c>/tmp/box/outside/file a;l>.. l~m;"
        "d/f d/l>../../outside/file l>d/l l;l>. l/m>.. l/m/outside/new;l>/proc/self/cwd/../outside/file l;"
        "d\\x>d/../../outside/new d\\x;d\\l>d/../../outside d\\l/new;d\\l>d/../../outside d\\l/new/f;"
        "da/ da/f d>../outside d/new;a/b/f a/b/g d/ d/f d/b>../../outside d/b/new;";
    for (const std::string& names : split(hostile + deep, ';')) {
        SCOPED_TRACE(names);
        const std::string last = split(names, ' ').back(), name = last.substr(0, last.find_first_of(">~"));
        ended(unpack(put(names)), -1, "error entry " + name + " leads out of the destination");
    }
    EXPECT_EQ(unpack(put("l>../outside l/ d>new d/ e/~6+8589934592")), 0); /* mkdir() follows no link */
    EXPECT_EQ(unpack(put("f l>../outside/file m>f n>../outside/dir")), 0);
    EXPECT_EQ(log(true)[1], "debug mode of l is not set: its target is not in the destination");
    EXPECT_EQ(tree(dest).substr(0, 9), "f777 f x;");
}

TEST_F(Zip, nothing_is_written_outside_while_mounts_change) {
    /* A walk that a mount disturbs restarts without resetting its count of links, so it may find too many. */
    std::string names = "a/ l0>a", at = "a/";
    for (int i = 1; i < 25; ++i, at += "a/") {
        names += " " + at + "a/ l" + std::to_string(i) + ">l" + std::to_string(i - 1) + "/a";
    }
    ASSERT_EQ(unpack(put(names + " " + at + "out>" + outside)), 0);
    fs::create_directory("/tmp/mounts");
    std::atomic<bool> done = false;
    std::thread mounts([&done] {
        while (!done) {
            EXPECT_EQ(mount("none", "/tmp/mounts", "tmpfs", 0, nullptr) + umount2("/tmp/mounts", MNT_DETACH), 0);
        }
    });
    const std::string package = put("l24/out/new");
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(unpack(package, false), -1);
    }
    done = true;
    mounts.join();
}

TEST_F(Zip, a_name_that_does_not_resolve_is_not_an_escape) {
    /* Entries, and the last log line if the last of them fails; by default that it cannot be opened. */
    for (const std::string& names : split("l>gone l/f;l>../outside/gone/new l;l>gone/new l/d/f;f l>f l/g;f f/g;l>l l;"
                                          "a>b b>a a/f;c>c l>c/x l/f;l>f/. f l;d/ d;a/..@755",
                                          ';')) {
        const std::string last = split(names, ' ').back();
        ended(unpack(put(names)), -1, "error error opening " + last.substr(0, last.find('@')));
    }
    EXPECT_EQ(unpack(put("l>gone l/d/ l>l l/d/ f f/d/ none/d/ after")), 0);
    EXPECT_EQ(tree(dest), "f644 after x;f644 f x;l777 l gone;");
    expect_call(unpack(put("l>gone l/m>x")), 0,
                {"info g_zip_buf is gone, filename_inzip = l", "info g_zip_buf is x, filename_inzip = l/m",
                 "error x symlink error"});
    fs::create_directory(dest + "/shut");
    fs::permissions(dest + "/shut", fs::perms(0));
    ended(unpack(put("shut/f"), false), -1, "error error opening shut/f");
    ended(unpack(put("shut@700"), false), -1, "error error opening shut");
    EXPECT_TRUE(tree(dest).starts_with("d700 shut ;"));
}

TEST_F(Zip, names_that_stay_inside_are_accepted) {
    put("a/../b=text a/./../a/c=more ../dest/d=1 /tmp/box/dest/e/f=2 e/../e/g/../../h=3 i/./j/../../k=5 "
        "l>gone/../../dest l/../i=4");
    ended(unpack(box + "/p.zip"), -1, "error error opening l/../i"); /* its link's target is missing */
    EXPECT_EQ(tree(dest),
              "d755 a ;d755 e ;d755 e/g ;d755 i ;d755 i/j ;f644 a/c more;f644 b text;f644 d 1;f644 e/f 2;f644 h 3;"
              "f644 k 5;"
              "l777 l gone/../../dest;");
    put("d/f=1 l>d l/g=2 d/m>/tmp/box/dest/d/h d/m=3 n>d/.. n/..i=4 o>../dest/d o/.../j=5 ..\\k=6 p>o/f p=7 ./d//q=8 "
        "r>/proc/self/cwd/d r/s=9");
    EXPECT_EQ(unpack(box + "/p.zip"), 0);
    EXPECT_TRUE(tree(dest).starts_with("d755 d/... ;d777 d ;f644 ..\\k 6;f644 ..i 4;f644 d/.../j 5;f644 d/f 7;"
                                       "f644 d/g 2;f644 d/h 3;f644 d/q 8;f644 d/s 9;l"));
}

TEST_F(Zip, a_broken_entry_is_never_a_success) {
    /* What extraction logs and leaves; what streaming returns, writes and logs. Its caller checks the checksum. */
    const auto check = [&](const std::string& entry, const std::string& line, const std::string& left, int32_t streamed,
                           size_t written, const Lines& streamed_log) {
        const std::string name = entry.substr(0, entry.find_first_of(">~"));
        const std::string package = put(entry + " after");
        ended(unpack(package), -1, line);
        EXPECT_EQ(tree(dest), left.empty() ? "" : "f604 " + name + left + ";") << entry;
        add_partition("node", 10001, '.');
        ota_file_info_t node = file_info(by_name + "node", 0, OTA_EMMC);
        expect_call(vx_uncompress_file_to(package.c_str(), name.c_str(), &node, nullptr), streamed, streamed_log);
        EXPECT_EQ(read_partition("node").find('.'), written) << entry;
    };
    const std::string bad_sum = "error error -105 with zipfile in unzCloseCurrentFile";
    const std::string bad_read = "error error -103 with zipfile in unzReadCurrentFile";
    const std::string torn = "error error -3 with zipfile in unzReadCurrentFile";
    const std::string huge = "error entry huge of 5368709121 bytes is too large to be read", name_256(256, 'n');
    const std::string no_target = "error error reading link target of ";
    check("sum~zc@604*10000", bad_sum, " *10000", 0, 10000, {});
    check("sum64~6c@604*10000", bad_sum, " *10000", 0, 10000, {});
    check("less~z@604*10000+-9000", bad_sum, " *1000", 0, 1000, {});
    check("less64~z6@604*10000+-9000", bad_sum, " *1000", 0, 1000, {});
    check("more~z@604*10000+1", bad_read, " *10000", -103, 10000, {bad_read});
    check("more64~6@604*10000+1", bad_read, " *10000", -103, 10000, {bad_read});
    /* The size is all ones, without a zip64 field. */
    check("full~@604*10000+4294957295", bad_read, " *10000", -103, 10000, {bad_read});
    check("bent~b@604*10000+4294957295", bad_read, " *10000", -103, 10000, {bad_read});
    check("torn~zt@604*10000", torn, " ", -3, 0, {torn});
    check("method~m", "error error -103 with zipfile in unzOpenCurrentFilePassword", "", -103, 0,
          {"error error -103 with zipfile in unzipOpenCurrentFile"});
    check("huge~z6+5368709120", huge, "", -1, 0, {huge});
    check("cut~z+1>target", no_target + "cut", "", -103, 6, {bad_read});
    check("link>" + std::string(8192, 'l'), no_target + "link", "", 0, 8192, {});
    check(name_256, "error entry name of 256 bytes is too long", "", -102, 0,
          {"error Cannot find file in zip: " + name_256});
}

TEST_F(Zip, a_package_cut_anywhere_is_whole_or_empty_or_refused) {
    const std::string whole = read_file(put("a.img=image b/c=text d/ l>b/c"));
    for (size_t length = 0; length < whole.size(); ++length) {
        const std::string package = write_file(box + "/p.zip", whole.substr(0, length));
        uint64_t images = 0;
        const bool is_empty = vx_get_zip_size(package.c_str(), &images) == 0;
        const std::string wanted = is_empty ? "" : "d755 b ;d755 d ;f644 a.img image;f777 b/c text;l777 l b/c;";
        EXPECT_TRUE(unpack(package) == -1 || tree(dest) == wanted) << length;
    }
}

TEST_F(Zip, one_entry_is_extracted_and_a_failure_stays_in_the_destination) {
    put("a/b=text broken~c");
    const auto take = [&](const char* dir, const char* name, const std::string& left_at, const std::string& line) {
        fs::current_path(box);
        const int32_t result = vx_uncompress_one("p.zip", dir, name);
        EXPECT_EQ(std::pair(log().back(), fs::current_path()), std::pair(line, fs::path(left_at)));
        return result;
    };
    EXPECT_EQ(take("dest/made", "a/b", box, "warning dest/made is not exist, create it"), 0);
    EXPECT_EQ(tree(dest), "d755 made ;d755 made/a ;f644 made/a/b text;");
    EXPECT_EQ(take("dest", "A/b", dest, "warning cannot find A/b in package, error -100"), -1);
    EXPECT_EQ(take("dest", "broken", dest, "error extract file failed"), -1);
    EXPECT_EQ(take("/proc/none", "a/b", box, "error change dir failed "), -1);
    EXPECT_EQ(take(nullptr, "a/b", box, "error dest is null"), -1);
    ended(vx_uncompress("p.zip", "/proc/none"), -1, "error change dir failed ");
    (void)vx_uncompress("p.zip", "/tmp/box/new");
    EXPECT_EQ(log().front(), "error /tmp/box/new is not exist, create it");
    expect_call(unpack("p"), -1, {"error Cannot open p or p.zip"});
}

TEST_F(Zip, packages_are_searched_and_sized) {
    constexpr int64_t big = 5368709120;
    const std::string package =
        put("boot.img=abc dir/a z.ubifs~6=+5368709120 " + std::string(128, 'n') + "=12", "a.zip");
    uint64_t images = UINT64_MAX; /* the sum is added to its old value */
    EXPECT_EQ(vx_get_zip_size(package.c_str(), &images), big + 6);
    EXPECT_EQ(images, big + 4);
    EXPECT_EQ(log(), Lines{"error file name is too len"});
    char names[][10] = {"", "boot", "dir/", "a", "boot.img2"};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(vx_zip_has_file(package.c_str(), names[i]), i < 3 ? 1 : 0) << names[i];
    }
    fs::create_directories(box + "/directory.zip");
    fs::create_symlink(package, box + "/link.zip");
    put("x.bin=1234 y=12345678", "b.zip");
    EXPECT_EQ(vx_get_max_zip_size(box.c_str()), big + 6);
    EXPECT_EQ(vx_all_image_size(box.c_str()), -1); /* from elsewhere */
    fs::current_path(box);
    EXPECT_EQ(vx_all_image_size(box.c_str()), big + 9);
    fs::current_path("/");
    put("a~6+9223372036854775806 b", "b.zip");
    ended(vx_get_max_zip_size(box.c_str()), -1, "error get zip size error");
    EXPECT_EQ(fs::current_path(), box);
    expect_call(vx_get_zip_size("b.zip", &images), -1, {"error sizes in b.zip overflow"});
    put("a.img~6+9223372036854775800", "b.zip"); /* too much only together with the other package */
    ended(vx_all_image_size(box.c_str()), -1, "error sizes in " + box + " overflow");
    std::string more = read_file(put("a=1 b=22", "b.zip"));
    more[more.size() - 14] = more[more.size() - 12] = 3; /* entries that it claims to have */
    write_file(box + "/b.zip", more);
    EXPECT_EQ(std::pair(vx_get_zip_size("b.zip", &images), vx_zip_has_file("b.zip", names[4])), std::pair(3L, 0));
    ended(unpack(box + "/b.zip"), -1, "error error -103 with zipfile in unzGoToNextFile");
}

TEST_F(Zip, entries_on_both_sides_of_2_and_4_GiB) {
    constexpr uint64_t gib_2 = uint64_t{1} << 31, gib_4 = uint64_t{1} << 32;
    /* The size of the hole, and whether the entry after it can be reached. Only odd ones are streamed, which is slow.
     */
    const std::pair<uint64_t, bool> rows[] = {
        {gib_2 - 40, true}, {gib_2 + 2, true}, {gib_4 - 37, true}, {gib_4 - 34, false}, {gib_4 + 1, false}};
    for (const auto& [size, reached] : rows) {
        SCOPED_TRACE(size);
        const std::string package = put((size < gib_4 ? "hole~h=+" : "hole~h6=+") + std::to_string(size) + " far=data");
        uint64_t images = 0;
        EXPECT_EQ(vx_get_zip_size(package.c_str(), &images), static_cast<int64_t>(size + 4));
        char name[] = "far";
        EXPECT_EQ(vx_zip_has_file(package.c_str(), name), 1);
        fs::current_path("/"); /* a failure stays in the destination */
        fs::remove_all(dest);
        EXPECT_EQ(vx_uncompress_one(package.c_str(), dest.c_str(), name), reached ? 0 : -1);
        EXPECT_EQ(read_file(dest + "/far"), reached ? "data" : "");
        log();
        if (size % 2 == 0) {
            continue;
        }
        ota_file_info_t node = file_info("/dev/null");
        EXPECT_EQ(vx_uncompress_file_to(package.c_str(), "hole", &node, nullptr), size < gib_4 ? 0 : -1);
        EXPECT_EQ(node.offset, size < gib_4 ? size : 0);
    }
    EXPECT_EQ(log().back(), "error entry hole of 4294967297 bytes is too large to be read");
}

TEST_F(Zip, extensions_are_compared_exactly) {
    const std::string name_127 = std::string(123, 'n') + ".zip";
    for (const std::string& name : split("update.zip;/ota/all.tar.zip;.zip;" + name_127, ';')) {
        EXPECT_EQ(is_xxx_file(name.c_str(), "zip"), 1) << name;
    }
    for (const std::string& name : split("n.zip/inner;n.zip/;n.zip.;zip", ';')) {
        EXPECT_EQ(std::pair(is_xxx_file(name.c_str(), "zip"), is_xxx_file(name.c_str(), "")), std::pair(0, 1)) << name;
    }
    EXPECT_EQ(is_xxx_file("a.ZIP", "zip"), 0);
    EXPECT_EQ(ota_check_file(put("x").c_str(), "img"), -1);
    EXPECT_EQ(ota_check_file(put("x", name_127).c_str(), "img"), 0); /* a long name cannot be checked */
}

TEST_F(Zip, staging_needs_more_room_than_the_images) {
    const std::string package = put("a.img*1024", "a.zip");
    for (const std::string size : {"2048", "2052"}) {
        mount("tmpfs", "/userdata", "tmpfs", 0, ("size=" + size + "k").c_str());
        uint64_t images = 1;
        ended(unzip_ota_file(package.c_str(), dest.c_str(), &images), -1, "error get ota file dir free space error!");
        fs::create_directories("/userdata/ota/unzip_dir");
        EXPECT_EQ(unzip_ota_file(package.c_str(), dest.c_str(), &images), size == "2048" ? -1 : 0);
        EXPECT_EQ(log().front(), "info ota file dir free space:" + size + ", unzip need space:2048!");
        EXPECT_EQ(tree(dest), size == "2048" ? "" : "f644 a.img *1024;");
        EXPECT_EQ(images, 2049);
        EXPECT_EQ(unzip_ota_file(put("a~6+9223372036854775806", "b.zip").c_str(), dest.c_str(), &images), -1);
        EXPECT_TRUE(log().back().ends_with("is not enough for file unzip need space:9223372036854775807!"));
        umount("/userdata");
    }
    mount("tmpfs", "/userdata", "tmpfs", 0, "size=8k"); /* full before the end of the file */
    ended(vx_uncompress(put("f*8200").c_str(), "/userdata"), -1, "error error in writing extracted file");
    umount("/userdata");
    EXPECT_EQ(unzip_ota_file(package.c_str(), "/tmp/ota/unzip_dir2", nullptr), 0);
    ended(unzip_ota_file("/none.zip", "/tmp/ota/unzip_dir/x", nullptr), -1,
          "error uncompress /none.zip to /tmp/ota/unzip_dir/x failed!");
}

TEST_F(Zip, the_first_package_of_a_list_supplies_the_process) {
    const std::string good = put("ota_process@100755=#!");
    const auto take = [](const std::string& list, const std::string& line) {
        char path[26] = {};
        const int32_t result = get_ota_process(list.c_str(), path, sizeof path);
        EXPECT_EQ(log().back(), line);
        EXPECT_STREQ(path, result == 0 ? "/tmp/process//ota_process" : "");
        return result;
    };
    EXPECT_EQ(take(";;" + good + ";/none", "warning /tmp/process/ is not exist, create it"), 0);
    EXPECT_EQ(tree("/tmp/process"), "f755 ota_process #!;");
    EXPECT_EQ(take("", "error No update file selected"), -6);
    EXPECT_EQ(take("rel.zip;" + good, "error Please use absolute path: rel.zip"), -6);
    EXPECT_EQ(take("/none;" + good, "error cannot read file: /none"), -16);
    EXPECT_EQ(get_ota_process(good.c_str(), nullptr, 0), 0); /* the path is known */
    fs::remove_all("/tmp/process");
    EXPECT_EQ(take(put("ota_process>x"), "error get system upgrade process [ota_process] failed"), -15);
    EXPECT_FALSE(fs::is_symlink("/tmp/process/ota_process")); /* it would be in the way of a good one */
    EXPECT_EQ(take(put("x"), "error get system upgrade process [ota_process] failed"), -15);
}

TEST_F(Zip, directories_are_created_with_their_parents) {
    for (const std::string& path : {dest + "/a/b/", dest + "/a/b", dest + "/c\\d/e", outside + "/file/x"}) {
        EXPECT_EQ(makedir(path.c_str()), 0) << path;
    }
    EXPECT_EQ(tree(dest), "d755 a ;d755 a/b ;d755 c ;d755 c\\d ;d755 c\\d/e ;");
    EXPECT_EQ(std::pair(makedir(""), makedir("/")), std::pair(-1, -1));
    EXPECT_EQ(log(), Lines{"error couldn't create directory "});
}

} // namespace
