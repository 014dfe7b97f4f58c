// Starting, watching and ending the programs under test.
#include "tests/system/Process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace system_test {

namespace {

void Require(bool condition, const std::string& what) {
    if (!condition) { throw std::system_error(errno, std::generic_category(), what); }
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) { pointers.push_back(text.data()); }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

RuntimeDirectory::RuntimeDirectory() : path_(std::filesystem::temp_directory_path() / "report-event-XXXXXX") {
    Require(mkdtemp(path_.data()) != nullptr, "mkdtemp");
}

RuntimeDirectory::~RuntimeDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Process::Process(const std::vector<std::string>& command, const Environment& environment, const std::string& input) {
    std::vector<std::string> arguments = command, variables = environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string name(*variable, std::strcspn(*variable, "=") + 1);
        const auto replaces = [&](const std::string& own) { return own.rfind(name, 0) == 0; };
        if (std::none_of(environment.begin(), environment.end(), replaces)) { variables.emplace_back(*variable); }
    }
    const auto argumentPointers = Pointers(arguments), variablePointers = Pointers(variables);

    // The input is a file in memory: nobody has to feed it, whether or not the child reads it.
    const int in = memfd_create("input", MFD_CLOEXEC);
    Require(pwrite(in, input.data(), input.size(), 0) == static_cast<ssize_t>(input.size()), "memfd_create");
    int out[2], err[2];
    Require(pipe2(out, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0, "pipe2");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    errno = posix_spawnp(&pid_, command[0].c_str(), &actions, nullptr, &argumentPointers[0], &variablePointers[0]);
    Require(errno == 0, "posix_spawn " + command[0]);
    posix_spawn_file_actions_destroy(&actions);
    for (const int fd : {in, out[1], err[1]}) { close(fd); }
    outputReader_ = std::thread(&Process::Collect, this, out[0], std::ref(output_));
    errorReader_ = std::thread(&Process::Collect, this, err[0], std::ref(errors_));
}

Process::~Process() {
    if (!reaped_) {
        Signal(SIGCONT);
        Stop(SIGKILL);
    }
    outputReader_.join();
    errorReader_.join();
}

void Process::Collect(int fd, Lines& lines) {
    std::string pending;
    char chunk[4096];
    for (ssize_t count = 0; (count = read(fd, chunk, sizeof(chunk))) > 0; changed_.notify_all()) {
        pending.append(chunk, static_cast<size_t>(count));
        const std::lock_guard<std::mutex> lock(mutex_);
        for (size_t end = 0; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
            lines.push_back(pending.substr(0, end));
        }
    }
    close(fd);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!pending.empty()) { lines.push_back(pending); }
    --openStreams_;
    changed_.notify_all();
}

Process::Condition Process::Holds(const std::string& text, ptrdiff_t count) {
    const auto holds = [text](const std::string& line) { return line.find(text) != std::string::npos; };
    return [=](const Lines& lines) { return std::count_if(lines.begin(), lines.end(), holds) >= count; };
}

bool Process::WaitFor(const Lines& lines, const Condition& condition) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, PATIENCE, [&] { return condition(lines) || openStreams_ == 0; });
    return condition(lines);
}

int Process::Wait() {
    int status = 0;
    if (!reaped_ && WaitUntil([&](const Lines&) { return openStreams_ == 0; })) {
        reaped_ = waitpid(pid_, &status, 0) == pid_;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
}

Process::Lines Process::Copy(const Lines& lines) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines;
}

std::string Process::Transcript() const {
    std::string text;
    for (const std::string& line : Output()) { text += "out: " + line + "\n"; }
    for (const std::string& line : Errors()) { text += "err: " + line + "\n"; }
    return text;
}

}  // namespace system_test
