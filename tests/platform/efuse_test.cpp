// SPDX-License-Identifier: Apache-2.0
#include "kastor_efuse.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

class Efuse : public testing::Test {
protected:
    Efuse() {
        std::filesystem::create_directory(dir_);
        setenv("TESSERA_EFUSE_FILE", file_.c_str(), 1);
    }
    ~Efuse() override {
        std::filesystem::remove_all(dir_);
    }
    std::string content() {
        std::ifstream in(file_);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    const std::filesystem::path dir_ = testing::TempDir() + "efuse." + std::to_string(getpid());
    const std::filesystem::path file_ = dir_ / "counters";
};

TEST_F(Efuse, counters_start_at_0_and_only_rise) {
    uint32_t value = 7;
    EXPECT_EQ(kastor_efuse_sec_anti_read(&value), 0);
    EXPECT_EQ(value, 0U);
    EXPECT_EQ(kastor_efuse_sec_anti_write(3), 0);
    EXPECT_EQ(kastor_efuse_nosec_anti_write(UINT32_MAX), 0);
    EXPECT_EQ(kastor_efuse_sec_anti_write(3), 0);
    EXPECT_EQ(kastor_efuse_sec_anti_write(2), -EPERM);
    EXPECT_EQ(kastor_efuse_nosec_anti_write(0), -EPERM);
    EXPECT_EQ(content(), "sec 3\nnosec 4294967295\n");
    EXPECT_FALSE(std::filesystem::exists(dir_ / "counters.new"));
    EXPECT_EQ(kastor_efuse_nosec_anti_read(&value), 0);
    EXPECT_EQ(value, UINT32_MAX);
}

TEST_F(Efuse, a_damaged_file_is_a_failure_and_stays_as_it_is) {
    const std::string sound = "sec 1\nnosec 2\n";
    std::vector<std::string> damaged = {
        "sec 4294967296\nnosec 2\n", "sec -1\nnosec 2\n", "sec  1\nnosec 2\n",
        "nosec 2\nsec 1\n",          sound + "x",         sound + std::string(64, '\n')};
    for (size_t length = 0; length < sound.size(); ++length) {
        damaged.push_back(sound.substr(0, length));
    }
    for (const std::string& text : damaged) {
        std::ofstream(file_) << text;
        uint32_t value = 7;
        EXPECT_LT(kastor_efuse_sec_anti_read(&value), 0) << text;
        EXPECT_LT(kastor_efuse_nosec_anti_write(9), 0) << text;
        EXPECT_EQ(value, 7U);
        EXPECT_EQ(content(), text);
    }
}

TEST_F(Efuse, two_writers_lose_nothing) {
    const auto raise = [](int32_t (*write)(uint32_t)) {
        for (uint32_t version = 1; version <= 50; ++version) {
            EXPECT_EQ(write(version), 0);
        }
    };
    std::thread other(raise, kastor_efuse_nosec_anti_write);
    raise(kastor_efuse_sec_anti_write);
    other.join();
    EXPECT_EQ(content(), "sec 50\nnosec 50\n");
    setenv("TESSERA_EFUSE_FILE", (dir_ / "nowhere" / "counters").c_str(), 1);
    EXPECT_EQ(kastor_efuse_sec_anti_write(1), -ENOENT);
    EXPECT_EQ(kastor_efuse_sec_anti_read(nullptr), -EINVAL);
}

} // namespace
