/** Packages, sound and hostile: what lands on disk, what does not, and what is said about it. */
#include "board.h"
#include "ota_partition.h"
#include "ota_utils.h"
#include "vx_zip.h"

#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

namespace fs = std::filesystem;

namespace {

using strings = std::vector<std::string>;

strings split(const std::string& text, char separator) {
    strings parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

std::string le(uint64_t value, size_t bytes) {
    return {reinterpret_cast<const char*>(&value), bytes};
}

const Bytef* as_bytes(const std::string& text) {
    return reinterpret_cast<const Bytef*>(text.data());
}

/**
 * A package in words, one an entry: a name, then what it is, in any order: "=data" ("x" is the default),
 * "*bytes" of x, ">target" for a link, "@mode", "+bytes" that are claimed and not there, and "~traits" with
 * z: deflated, s: sizes behind the data, 6: size in a zip64 field, c: wrong checksum, m: unknown method.
 */
std::string package_of(const std::string& words) {
    std::string all;
    std::string central;
    const strings entries = split(words, ' ');
    for (const std::string& word : entries) {
        std::map<char, std::string> is = {{'=', "x"}, {'@', "100644"}, {'+', "0"}};
        size_t end = word.find_first_of("=*>@+~");
        const std::string name = word.substr(0, end);
        for (size_t at = end; at < word.size(); at = end) {
            end = word.find_first_of("=*>@+~", at + 1);
            is[word[at]] = word.substr(at + 1, end - at - 1);
        }
        const std::string mode = is.contains('>') ? "120777" : is['@'];
        std::string data = is.contains('>')   ? is['>']
                           : is.contains('*') ? std::string(std::stoul(is['*']), 'x')
                                              : is['='];
        const auto has = [&](char trait) { return is['~'].find(trait) != std::string::npos; };
        const uint64_t size = data.size() + static_cast<uint64_t>(std::stoll(is['+']));
        const uLong crc = crc32(0, as_bytes(data), static_cast<uInt>(data.size())) ^ (has('c') ? 1 : 0);
        if (has('z')) {
            Bytef packed[20000];
            uLongf length = sizeof packed;
            compress(packed, &length, as_bytes(data), data.size());
            data.assign(packed + 2, packed + length - 4); /* the bare deflate stream */
        }
        const std::string extra = has('6') ? le(1, 2) + le(8, 2) + le(size, 8) : "";
        const std::string sums = le(crc, 4) + le(data.size(), 4) + le(has('6') ? UINT32_MAX : size, 4);
        const std::string head = le(has('s') ? 8 : 0, 2) +
                                 le(has('m')   ? 99
                                    : has('z') ? 8
                                               : 0,
                                    2) +
                                 le(0x58B169C8, 4); /* 2024-05-17 13:14:16 */
        const std::string tail = le(name.size(), 2) + le(extra.size(), 2);
        central += "PK\1\2" + le(0x140314, 4) + head + sums + tail + le(0, 6);
        central += le(std::stoul(mode, nullptr, 8) << 16, 4) + le(all.size(), 4) + name + extra;
        all += "PK\3\4" + le(20, 2) + head + (has('s') ? le(0, 8) + le(0, 4) : sums) + tail + name + extra + data;
        all += has('s') ? "PK\7\b" + sums : "";
    }
    const std::string end = "PK\5\6" + le(0, 4) + le(entries.size() << 16 | entries.size(), 4) + le(central.size(), 4);
    return all + central + end + le(all.size(), 4) + le(0, 2);
}

/** What stands below a directory, in order: "d755 a ;f644 a/b text;l777 a/c target;". */
std::string tree(const std::string& root) {
    std::set<std::string> lines;
    for (const fs::directory_entry& at : fs::recursive_directory_iterator(root)) {
        std::ostringstream line;
        line << (at.is_symlink()     ? 'l'
                 : at.is_directory() ? 'd'
                                     : 'f')
             << std::oct << std::noshowbase << unsigned(at.symlink_status().permissions()) << ' '
             << at.path().lexically_relative(root).string();
        std::ostringstream text;
        text << ' ' << std::ifstream(at.path()).rdbuf();
        const bool is_long = text.str().find(std::string(99, 'x')) == 1;
        lines.insert(line.str() + (at.is_symlink() ? ' ' + fs::read_symlink(at.path()).string()
                                   : is_long       ? " *" + std::to_string(text.str().rfind('x'))
                                                   : text.str()));
    }
    std::string all;
    for (const std::string& line : lines) {
        all += line + ";";
    }
    return all;
}

class Zip : public Board {
protected:
    Zip() {
        umask(022);
        fs::remove_all(box);
        fs::create_directories(outside + "/dir");
        write_file(outside + "/file", "keep");
    }

    ~Zip() override {
        fs::current_path("/");
    }

    std::string put(const std::string& words, const std::string& name = "p.zip") {
        return write_file(box + "/" + name, package_of(words));
    }

    /** Unpacks, and fails for whatever changes elsewhere. */
    int32_t unpack(const std::string& package, bool afresh = true) {
        fs::remove_all(afresh ? dest : "");
        fs::create_directories(dest);
        const auto elsewhere = [this] { return std::tuple(tree(outside), open_descriptors(), fs::current_path()); };
        const auto before = elsewhere();
        log();
        const int32_t result = vx_uncompress(package.c_str(), dest.c_str());
        EXPECT_EQ(elsewhere(), before);
        EXPECT_EQ(std::distance(fs::directory_iterator(box), {}), 3);
        return result;
    }

    const std::string box = "/tmp/box";
    const std::string dest = box + "/dest";
    const std::string outside = box + "/outside";
};

TEST_F(Zip, each_kind_of_entry_lands_as_it_is_packed) {
    const std::string dir(250, 'n');
    ASSERT_EQ(unpack(put("d/ d/f=one l>d/f b\\s missing/dir/ missing/l>d no/parent/f*20000~z@104751 stored64~6*9000 "
                         "behind*20000~zs@100640 deflated64~z6*20000 bare@0 " +
                         dir + "/5678")),
              0);
    EXPECT_EQ(log(), (strings{"info g_zip_buf is d/f, filename_inzip = l",
                              "info g_zip_buf is d, filename_inzip = missing/l", "error d symlink error"}));
    EXPECT_EQ(tree(dest), "d755 d ;d755 " + dir +
                              " ;d755 no ;d755 no/parent ;f0 bare ;f640 behind *20000;f644 b\\s x;"
                              "f644 deflated64 *20000;f644 " +
                              dir +
                              "/5678 x;f644 stored64 *9000;"
                              "f751 no/parent/f *20000;f777 d/f one;l777 l d/f;");
    std::tm date{16, 14, 13, 17, 4, 124, 0, 0, -1, 0, nullptr};
    struct stat status {};
    EXPECT_EQ(stat((dest + "/no/parent/f").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtime, std::mktime(&date));

    EXPECT_EQ(unpack(put("d/f=three l>no bare"), false), -1); /* files are replaced, links are not */
    EXPECT_EQ(log().back(), "error error opening bare");
    EXPECT_EQ(read_file(dest + "/l"), "three");
}

TEST_F(Zip, nothing_gets_out_of_the_destination) {
    std::string deep; /* along its links it is longer than any path may be */
    std::string at;
    for (int i = 0; i < 25; ++i) {
        const std::string step = at + std::string(90, 'a') + "/" + std::string(90, 'b');
        at = "l" + std::to_string(i);
        deep += step + "/f " + at + ">" + step + " ";
        at += "/";
    }
    deep += at + "out>" + outside + " " + at + "out/new";
    const std::string hostile =
        "../new;a/../../new;a/..;../outside/;/tmp/box/outside/new;/tmp/box/outside/new>x;l>../outside l/new;"
        "l>/tmp/box/outside .//l/dir/new;l>../outside l/new/;l>../outside l/new>file;l>../outside/file l;"
        "l>../outside/new l;l>../outside/gone/new l;a>b b>c c>/tmp/box/outside/file a;l>.. l~m;l>l l;"
        "d/f d/l>../../outside/file l>d/l l;l>. l/m>.. l/m/outside/new;l>/proc/self/cwd/../outside/file l;"
        "d\\x>d/../../outside/new d\\x;d\\l>d/../../outside d\\l/new;d\\l>d/../../outside d\\l/new/f;";
    for (const std::string& names : split(hostile + deep, ';')) {
        EXPECT_EQ(unpack(put(names)), -1) << names;
        const std::string last = split(names, ' ').back();
        const std::string name = last.substr(0, last.find_first_of("~>"));
        EXPECT_EQ(log().back(), "error entry " + name + " leads out of the destination");
    }
    EXPECT_EQ(unpack(put("f l>../outside/file m>f n>../outside/dir")), 0);
    EXPECT_EQ(log(true)[1], "debug mode of l is not set: its target is not in the destination");
    EXPECT_EQ(tree(dest).substr(0, 9), "f777 f x;");
}

TEST_F(Zip, what_stays_inside_is_let_in) {
    EXPECT_EQ(unpack(put("d/f=1 l>d l/g=2 m>/tmp/box/dest/d/h m=3 n>d/.. n/..i=4 o>../dest/d o/.../j=5 ..\\k=6 p>o/f "
                         "p=7 ./d//q=8 r>/proc/self/cwd/d r/s=9")),
              0);
    const std::string found = tree(dest);
    EXPECT_EQ(found.substr(0, found.find('l')), "d755 d/... ;d777 d ;f644 ..\\k 6;f644 ..i 4;f644 d/.../j 5;"
                                                "f644 d/f 7;f644 d/g 2;f644 d/h 3;f644 d/q 8;f644 d/s 9;");
}

TEST_F(Zip, a_broken_entry_is_never_a_success) {
    const std::string bad_sum = ";error -105 with zipfile in unzCloseCurrentFile;";
    const std::string bad_read = ";error -103 with zipfile in unzReadCurrentFile;";
    /* The entry; what is said; bytes left on disk; and by streaming, where a checksum is the caller's business. */
    const strings rows = {"sum~zc@604*10000" + bad_sum + "10000;0 10000",
                          "sum64~6c@604*10000" + bad_sum + "10000;0 10000",
                          "less~z@604*10000+-9000" + bad_sum + "1000;0 1000",
                          "less64~z6@604*10000+-9000" + bad_sum + "1000;0 1000",
                          "more~z@604*10000+1" + bad_read + "10000;-103 10000",
                          "more64~6@604*10000+1" + bad_read + "10000;-103 10000",
                          "method~m;error -103 with zipfile in unzOpenCurrentFilePassword;;-103 0",
                          "huge~z6+5368709120;entry huge of 5368709121 bytes is too large to be read;;-1 0",
                          std::string(256, 'n') + ";entry name of 256 bytes is too long;;-102 0",
                          "link>" + std::string(8192, 'l') + ";error reading link target of link;;0 8192",
                          "cut~z+1>target;error reading link target of cut;;-103 6"};
    for (const std::string& row : rows) {
        const strings part = split(row, ';');
        const std::string name = part[0].substr(0, part[0].find_first_of("~>"));
        const std::string package = put(part[0] + " after");
        EXPECT_EQ(unpack(package), -1) << row;
        EXPECT_EQ(log().back(), "error " + part[1]);
        EXPECT_EQ(tree(dest), part[2].empty() ? "" : "f604 " + name + " *" + part[2] + ";");
        add_partition("node", 10001, '.');
        ota_file_info_t node = {0, 0, OTA_EMMC, "/dev/block/platform/by-name/node"};
        const int32_t result = vx_uncompress_file_to(package.c_str(), name.c_str(), &node, nullptr);
        EXPECT_EQ(std::to_string(result) + " " + std::to_string(read_partition("node").find('.')), part[3]) << row;
    }
}

TEST_F(Zip, a_package_cut_anywhere_is_whole_or_empty_or_refused) {
    const std::string whole = package_of("a.img=image b/c=text d/ l>b/c");
    for (size_t length = 0; length < whole.size(); ++length) {
        const std::string package = write_file(box + "/p.zip", whole.substr(0, length));
        uint64_t images = 0;
        const bool is_empty = vx_get_zip_size(package.c_str(), &images) == 0;
        const std::string wanted = is_empty ? "" : "d755 b ;d755 d ;f644 a.img image;f777 b/c text;l777 l b/c;";
        EXPECT_TRUE(unpack(package) == -1 || tree(dest) == wanted) << length;
    }
}

TEST_F(Zip, one_entry_is_taken_and_a_failure_stays_in_the_destination) {
    put("a/b=text broken~c");
    const auto take = [&](const char* dir, const char* name, const std::string& left_at, const std::string& said) {
        fs::current_path(box);
        const size_t descriptors = open_descriptors();
        const int32_t result = vx_uncompress_one("p.zip", dir, name);
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(fs::current_path(), left_at);
        EXPECT_EQ(log().back(), said);
        return result;
    };
    EXPECT_EQ(take("dest/made", "a/b", box, "warning dest/made is not exist, create it"), 0);
    EXPECT_EQ(tree(dest), "d755 made ;d755 made/a ;f644 made/a/b text;");
    EXPECT_EQ(take("dest", "A/b", dest, "warning cannot find A/b in package, error -100"), -1);
    EXPECT_EQ(take("dest", "broken", dest, "error extract file failed"), -1);
    EXPECT_EQ(take("/proc/none", "a/b", box, "error change dir failed "), -1);
    EXPECT_EQ(take(nullptr, "a/b", box, "error dest is null"), -1);
    EXPECT_EQ(vx_uncompress("p", dest.c_str()), -1);
    EXPECT_EQ(vx_uncompress("p.zip", "/proc/none"), -1);
    EXPECT_EQ(log(), (strings{"error Cannot open p or p.zip", "error /proc/none is not exist, create it",
                              "error couldn't create directory /proc/none", "error change dir failed "}));
}

TEST_F(Zip, packages_are_searched_and_sized) {
    constexpr int64_t big = 5368709120;
    const std::string package =
        put("boot.img=abc dir/a z.ubifs~6=+5368709120 " + std::string(128, 'n') + "=12", "a.zip");
    uint64_t images = UINT64_MAX; /* whatever it held, it grows by */
    EXPECT_EQ(vx_get_zip_size(package.c_str(), &images), big + 6);
    EXPECT_EQ(images, big + 4);
    EXPECT_EQ(log(), strings{"error file name is too len"});
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
    log();
    EXPECT_EQ(vx_get_max_zip_size(box.c_str()), -1);
    EXPECT_EQ(fs::current_path(), box);
    const strings lines = log();
    EXPECT_EQ(lines[lines.size() - 2], "error sizes in b.zip overflow");
    EXPECT_EQ(lines.back(), "error get zip size error");
}

TEST_F(Zip, extensions_are_compared_exactly) {
    const std::string name_127 = std::string(123, 'n') + ".zip";
    const std::map<std::string, int32_t> rows = {
        {"update.zip", 1}, {"/ota/all.tar.zip", 1}, {".zip", 1},   {name_127, 1}, {"n" + name_127, -1},
        {"a.ZIP", 0},      {"n.zip/inner", 0},      {"n.zip/", 0}, {"n.zip.", 0}, {"zip", 0}};
    for (const auto& [name, result] : rows) {
        EXPECT_EQ(is_xxx_file(name.c_str(), "zip"), result) << name;
        EXPECT_EQ(is_xxx_file(name.c_str(), ""), result == 0 && name != "a.ZIP" ? 1 : std::min(result, 0)) << name;
    }
    EXPECT_EQ(ota_check_file(put("x").c_str(), "zip"), 0);
    EXPECT_EQ(ota_check_file(put("x").c_str(), "img"), -1);
    EXPECT_EQ(ota_check_file(put("x", std::string(128, 'n')).c_str(), "zip"), 0);
}

TEST_F(Zip, staging_needs_more_room_than_the_need) {
    const std::string package = put("a.img*1024");
    for (const std::string size : {"2048", "2052"}) {
        ASSERT_EQ(mount("tmpfs", "/userdata", "tmpfs", 0, ("size=" + size + "k").c_str()), 0);
        uint64_t images = 1;
        EXPECT_EQ(unzip_ota_file(package.c_str(), dest.c_str(), &images), -1);
        EXPECT_EQ(log().back(), "error get ota file dir free space error!");
        fs::create_directories("/userdata/ota/unzip_dir");
        EXPECT_EQ(unzip_ota_file(package.c_str(), dest.c_str(), &images), size == "2048" ? -1 : 0);
        EXPECT_EQ(log().front(), "info ota file dir free space:" + size + ", unzip need space:2048!");
        EXPECT_EQ(tree(dest), size == "2048" ? "" : "f644 a.img *1024;");
        EXPECT_EQ(images, 2049);
        umount("/userdata");
    }
    EXPECT_EQ(unzip_ota_file(package.c_str(), "/tmp/ota/unzip_dir2", nullptr), 0);
    EXPECT_EQ(unzip_ota_file("/none.zip", "/tmp/ota/unzip_dir/x", nullptr), -1);
    EXPECT_EQ(log().back(), "error uncompress /none.zip to /tmp/ota/unzip_dir/x failed!");
    EXPECT_EQ(unzip_ota_file(package.c_str(), dest.c_str(), nullptr), -1);
}

TEST_F(Zip, the_first_package_of_a_list_gives_the_process) {
    const std::string good = put("ota_process@100755=#!");
    const std::vector<std::pair<std::string, std::pair<int32_t, std::string>>> lists = {
        {";;" + good + ";/none", {0, "warning /tmp/process/ is not exist, create it"}},
        {"", {-6, "error No update file selected"}},
        {"rel.zip;" + good, {-6, "error Please use absolute path: rel.zip"}},
        {"/none;" + good, {-16, "error cannot read file: /none"}},
        {put("x", "bad.zip"), {-15, "error get system upgrade process [ota_process] failed"}}};
    for (const auto& [list, wanted] : lists) {
        char path[26] = {};
        EXPECT_EQ(get_ota_process(list.c_str(), path, sizeof path), wanted.first) << list;
        EXPECT_EQ(log().back(), wanted.second);
        EXPECT_STREQ(path, wanted.first == 0 ? "/tmp/process//ota_process" : "");
    }
    EXPECT_EQ(get_ota_process(";;", nullptr, 0), -6);
    EXPECT_EQ(tree("/tmp/process"), "f755 ota_process #!;");
}

TEST_F(Zip, directories_are_made_with_their_parents) {
    for (const std::string& path : {dest + "/a/b/", dest + "/a/b", dest + "/c\\d/e", outside + "/file/x"}) {
        EXPECT_EQ(makedir(path.c_str()), 0) << path;
    }
    for (const char* path : {"", "/", "/proc/none/x"}) {
        EXPECT_EQ(makedir(path), -1) << path;
    }
    EXPECT_EQ(log(), (strings{"error couldn't create directory ", "error couldn't create directory /proc/none"}));
    EXPECT_EQ(tree(dest), "d755 a ;d755 a/b ;d755 c ;d755 c\\d ;d755 c\\d/e ;");
}

} // namespace
