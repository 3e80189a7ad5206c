// SPDX-License-Identifier: Apache-2.0
/** The desktop's stand-in for the board's log library, in a program that has a system log of its own. */
#include "board.h"

#include <android/log.h>
#include <dlfcn.h>
#include <regex>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using Log = Board;

TEST_F(Log, entries_are_those_of_the_program) {
    void* const library = dlopen(TESSERA_LOG, RTLD_NOW); /* this program has an __android_log_print() too */
    ASSERT_NE(library, nullptr) << dlerror();
    const auto print = reinterpret_cast<decltype(&__android_log_print)>(dlsym(library, "__android_log_print"));
    EXPECT_LT(print(ANDROID_LOG_ERROR, nullptr, "nothing listens"), 0);

    const int daemon = socket(AF_UNIX, SOCK_DGRAM, 0);
    const sockaddr_un address = {AF_UNIX, _PATH_LOG};
    ASSERT_EQ(bind(daemon, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const auto received = [&] { /* "<priority>Mmm dd hh:mm:ss name: text", without the date */
                                char entry[256] = {};
                                EXPECT_GT(recv(daemon, entry, sizeof entry - 1, MSG_DONTWAIT), 0);
                                return std::regex_replace(entry, std::regex("^(<[0-9]+>).{16}"), "$1");
    };
    usleep(20000); /* the daemon is looked for once per clock tick */
    openlog("host", 0, LOG_LOCAL3);
    EXPECT_EQ(print(ANDROID_LOG_INFO, nullptr, "one %d\n", 1), 1);
    EXPECT_EQ(received(), "<158>host: one 1\n");
    EXPECT_EQ(print(ANDROID_LOG_ERROR, "tag", "two"), 1);
    EXPECT_EQ(received(), "<155>host: tag: two");
    syslog(LOG_NOTICE, "three");
    EXPECT_EQ(received(), "<157>host: three");
    setlogmask(LOG_UPTO(LOG_ERR));
    print(ANDROID_LOG_INFO, nullptr, "masked");
    print(ANDROID_LOG_WARN, nullptr, "masked");
    print(ANDROID_LOG_ERROR, nullptr, "four");
    EXPECT_EQ(received(), "<155>host: four");
    closelog();
    close(daemon);
}

} // namespace
