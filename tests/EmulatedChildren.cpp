// Part of GoogleTest in a cross build. An emulated process cannot start a program of its own machine: what a test names
// by a path is started by a shell that puts the emulator before it. A bare name ("sh") is a program of this machine.
//
// execv is called in a copy of a process that may have had threads: nothing here allocates.
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace {

struct Command {
    std::array<char, 4096> program{};
    std::array<char*, 64> words{};

    Command(const char* name, char* const* arguments)
    {
        static char shell[] = "/bin/sh";
        static char option[] = "-c";
        static char script[] = "exec " TEST_EMULATOR " \"$0\" \"$@\"";
        size_t count = 0;
        if (std::strchr(name, '/') != nullptr) {
            std::strncpy(program.data(), name, program.size() - 1);
            if (std::strcmp(name, "/proc/self/exe") == 0) {  // leads to the emulator for everyone but this program
                readlink(name, program.data(), program.size() - 1);
            }
            words = {shell, option, script, program.data()};
            count = 4;
            ++arguments;
        }
        for (; *arguments != nullptr; ++arguments) {
            words.at(count++) = *arguments;
        }
    }
};

}  // namespace

extern "C" {

int __real_posix_spawnp(pid_t* pid, const char* program, const posix_spawn_file_actions_t* actions,
                        const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment);

int __wrap_posix_spawnp(pid_t* pid, const char* program, const posix_spawn_file_actions_t* actions,
                        const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment)
{
    const Command command(program, arguments);
    return __real_posix_spawnp(pid, command.words[0], actions, attributes, command.words.data(), environment);
}

int __wrap_execv(const char* program, char* const* arguments)
{
    const Command command(program, arguments);
    return execvp(command.words[0], command.words.data());
}

}  // extern "C"
