#include "app/hook_command.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/process.h"

namespace tandem::app {
namespace {

using std::chrono::milliseconds;

bool is_gone(const std::string& pid) {
    // A zombie that init has not reaped yet has ended, too.
    const std::string stat = test::read_file("/proc/" + pid + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos;
}

TEST(hook_command, tells_how_it_failed) {
    EXPECT_EQ(hook_command_t({"true"}).wait(), "");
    EXPECT_EQ(hook_command_t({"false"}).wait(), "false has failed (exit status 1)");
    EXPECT_EQ(hook_command_t({"sh", "-c", "kill -9 $$"}).wait(), "sh was ended by signal 9");
    const std::string missing = hook_command_t({"/no/such"}).wait();
    if (missing != "/no/such has failed (exit status 127)") {  // so where vfork is a fork, as in an emulator
        EXPECT_EQ(missing, "/no/such cannot be run: No such file or directory");
    }
}

// Also by leaving, the command and what it has started end.
TEST(hook_command, ends_with_all_that_it_started) {
    const test::scratch_t scratch;
    const std::string file = scratch.path("pid");
    const std::vector<std::string> words{"sh", "-c", "sleep 1000 & echo $! > " + file + "; wait"};
    EXPECT_EQ(hook_command_t(words, milliseconds(1000)).wait(), "sh took longer than 1 s and was ended");
    const std::string first = test::read_file(file);
    EXPECT_TRUE(test::comes_true([&] { return is_gone(first.substr(0, first.find('\n'))); }));
    std::string second;
    {
        std::filesystem::remove(file);
        const hook_command_t left(words);
        ASSERT_TRUE(test::comes_true([&] { return test::read_file(file).find('\n') != std::string::npos; }));
        second = test::read_file(file);
    }
    EXPECT_TRUE(test::comes_true([&] { return is_gone(second.substr(0, second.find('\n'))); }));
}

}  // namespace
}  // namespace tandem::app
