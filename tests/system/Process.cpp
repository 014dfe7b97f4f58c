// Starting, watching and ending the programs under test.
#include "tests/system/Process.h"

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>

namespace system_test {

namespace {

void Require(bool condition, const std::string& what)
{
    if (!condition) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

int MakeFile()
{
    return memfd_create("standard stream", MFD_CLOEXEC);
}

}  // namespace

bool Await(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    for (; !condition(); std::this_thread::sleep_for(std::chrono::milliseconds(2))) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

RuntimeDirectory::RuntimeDirectory() : path_(std::filesystem::temp_directory_path() / "report-event-XXXXXX")
{
    Require(mkdtemp(path_.data()) != nullptr, "mkdtemp");
    setenv("IAM_RUNTIME_DIR", path_.c_str(), 1);
}

RuntimeDirectory::~RuntimeDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

Process::Process(const Words& command, const std::string& input, Streams streams)
    : output_(MakeFile()), errors_(MakeFile())
{
    std::vector<char*> arguments;
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    const int in = MakeFile();
    Require(pwrite(in, input.data(), input.size(), 0) == static_cast<ssize_t>(input.size()), "memfd_create");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const int files[] = {in, streams.output < 0 ? output_ : streams.output,
                         streams.errors < 0 ? errors_ : streams.errors};
    for (const int stream : {0, 1, 2}) {
        posix_spawn_file_actions_adddup2(&actions, files[stream], stream);
    }
    errno = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    Require(errno == 0, "posix_spawn " + command[0]);
    posix_spawn_file_actions_destroy(&actions);
    close(in);
}

Process::~Process()
{
    if (!HasEnded()) {
        Stop(SIGKILL);
    }
    close(output_);
    close(errors_);
}

bool Process::HasEnded()
{
    int status = 0;
    if (code_ < 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
        code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return code_ >= 0;
}

void Process::Pause()
{
    siginfo_t stopped;
    Signal(SIGSTOP);
    Require(waitid(P_PID, static_cast<id_t>(pid_), &stopped, WSTOPPED | WEXITED | WNOWAIT) == 0, "waitid");
}

int Process::Wait()
{
    Await([this] { return HasEnded(); });
    return code_;
}

Words Process::Lines(int file)
{
    Words lines;
    std::ifstream stream("/proc/self/fd/" + std::to_string(file));
    for (std::string line; std::getline(stream, line) && !stream.eof();) {
        lines.push_back(line);
    }
    return lines;
}

bool Process::WaitFor(int file, const std::string& text, size_t count)
{
    const auto holds = [&](const std::string& line) { return line.find(text) != std::string::npos; };
    bool came = false;
    Await([&] {
        const bool ended = HasEnded();  // before the last look
        const Words lines = Lines(file);
        came = static_cast<size_t>(std::count_if(lines.begin(), lines.end(), holds)) >= count;
        return came || ended;
    });
    return came;
}

std::string Process::Transcript() const
{
    std::string text;
    for (const std::string& line : Output()) {
        text += "out: " + line + "\n";
    }
    for (const std::string& line : Errors()) {
        text += "err: " + line + "\n";
    }
    return text;
}

}  // namespace system_test
