#include "tests/e2e/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <thread>

namespace tandem::test {
namespace {

using clock_t = std::chrono::steady_clock;

int milliseconds_until(clock_t::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_t::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1'000'000));
}

[[noreturn]] void become(char* const* args, int output, int errors) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    execvp(args[0], args);
    _exit(127);
}

}  // namespace

process_t::process_t(const std::vector<std::string>& args) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    output_ = app::file_t(ends[0]);
    const app::file_t child_output(ends[1]);
    errors_ = app::file_t(memfd_create("errors", MFD_CLOEXEC));
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) become(argv.data(), child_output.fd(), errors_.fd());
    if (pid_ < 0) throw std::runtime_error("no process");
    pidfd_ = app::file_t(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
}

process_t::process_t(process_t&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      ended_(other.ended_),
      status_(other.status_),
      pidfd_(std::move(other.pidfd_)),
      output_(std::move(other.output_)),
      errors_(std::move(other.errors_)),
      buffer_(std::move(other.buffer_)) {}

process_t::~process_t() {
    if (pid_ <= 0 || ended_) return;
    kill(pid_, SIGKILL);
    TEMP_FAILURE_RETRY(waitpid(pid_, nullptr, 0));
}

bool process_t::read_more(clock_t::time_point deadline) {
    pollfd ready{output_.fd(), POLLIN, 0};
    if (TEMP_FAILURE_RETRY(poll(&ready, 1, milliseconds_until(deadline))) <= 0) return false;
    char bytes[4096];
    const ssize_t got = TEMP_FAILURE_RETRY(read(output_.fd(), bytes, sizeof(bytes)));
    if (got <= 0) return false;
    buffer_.append(bytes, static_cast<size_t>(got));
    return true;
}

std::string process_t::wait_line(const std::string& prefix, std::chrono::milliseconds limit) {
    const auto deadline = clock_t::now() + limit;
    for (;;) {
        for (size_t end; (end = buffer_.find('\n')) != std::string::npos;) {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            if (line.rfind(prefix, 0) == 0) return line;
        }
        if (!read_more(deadline)) return "";
    }
}

bool process_t::wait_error(const std::string& part, std::chrono::milliseconds limit) const {
    return comes_true([&] { return errors().find(part) != std::string::npos; }, limit);
}

void process_t::signal(int number) const {
    if (!ended_) kill(pid_, number);
}

int process_t::wait(std::chrono::milliseconds limit) {
    if (!ended_) {
        pollfd ready{pidfd_.fd(), POLLIN, 0};
        if (TEMP_FAILURE_RETRY(poll(&ready, 1, static_cast<int>(limit.count()))) <= 0) return -1000;
        TEMP_FAILURE_RETRY(waitpid(pid_, &status_, 0));
        ended_ = true;
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
}

void process_t::end() {
    signal(SIGTERM);
    EXPECT_EQ(wait(), 0) << errors();
}

std::string process_t::rest_of_output() {
    const auto deadline = clock_t::now() + patience;
    while (read_more(deadline)) {
    }
    return std::exchange(buffer_, "");
}

std::string process_t::errors() const {
    std::string text;
    char bytes[4096];
    for (ssize_t got; (got = pread(errors_.fd(), bytes, sizeof(bytes), static_cast<off_t>(text.size()))) > 0;) {
        text.append(bytes, static_cast<size_t>(got));
    }
    return text;
}

bool comes_true(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = clock_t::now() + limit;
    while (!condition()) {
        if (clock_t::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string run(const std::vector<std::string>& args, int expected_code) {
    process_t process(args);
    std::string output = process.rest_of_output();
    std::string command;
    for (const std::string& arg : args)
        command += arg + " ";
    EXPECT_EQ(process.wait(), expected_code) << command << "\n" << output << process.errors();
    return output;
}

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

size_t count_lines(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace tandem::test
