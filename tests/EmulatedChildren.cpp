// Part of GoogleTest in a cross build. An emulated process cannot start a program of its own machine: what a test names
// by a path is started by a shell that puts the emulator before it. A bare name ("sh") is a program of this machine.
//
// execv is called in a copy of a process that may have had threads: nothing here allocates.
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace {

// The words of the shell's command for a program and its arguments.
std::array<char*, 64> Emulated(const char* program, char* const* arguments)
{
    static char shell[] = "/bin/sh";
    static char option[] = "-c";
    static char script[] = "exec " TEST_EMULATOR " \"$0\" \"$@\"";
    std::array<char*, 64> words = {shell, option, script, const_cast<char*>(program)};
    for (size_t count = 1; arguments[count] != nullptr; ++count) {
        words.at(count + 3) = arguments[count];
    }
    return words;
}

}  // namespace

extern "C" {

int __real_execv(const char* program, char* const* arguments);

int __wrap_execv(const char* program, char* const* arguments)
{
    return __real_execv("/bin/sh", Emulated(program, arguments).data());
}

int __real_posix_spawnp(pid_t* pid, const char* program, const posix_spawn_file_actions_t* actions,
                        const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment);

int __wrap_posix_spawnp(pid_t* pid, const char* program, const posix_spawn_file_actions_t* actions,
                        const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment)
{
    if (std::strchr(program, '/') == nullptr) {
        return __real_posix_spawnp(pid, program, actions, attributes, arguments, environment);
    }
    return __real_posix_spawnp(pid, "/bin/sh", actions, attributes, Emulated(program, arguments).data(), environment);
}

}  // extern "C"
