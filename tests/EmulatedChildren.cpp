// Part of GoogleTest in a cross build. An emulated process cannot start a program of its own machine: before every
// program that a test names by a path go the emulator's words. A bare name ("sh") is a program of this machine.
//
// execv is called in a copy of a process that may have had threads: nothing here allocates.
#include <spawn.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace {

struct Emulator {
    std::array<char, 256> text{TEST_EMULATOR};
    std::array<char, 4096> self{};
    std::array<char*, 8> words{};
    size_t count = 0;

    Emulator()
    {
        for (char* word = strtok(text.data(), " "); word != nullptr; word = strtok(nullptr, " ")) {
            words.at(count++) = word;
        }
        if (readlink("/proc/self/exe", self.data(), self.size() - 1) < 0) {
            self[0] = '\0';
        }
    }
};
Emulator emulator;

using Arguments = std::array<char*, 64>;

Arguments Emulated(const char* program, char* const* arguments)
{
    Arguments result{};
    size_t count = 0;
    if (std::strchr(program, '/') != nullptr) {
        for (; count < emulator.count; ++count) {
            result[count] = emulator.words[count];
        }
        // The link leads to the emulator for everyone but the emulated program.
        const bool itself = std::strcmp(program, "/proc/self/exe") == 0;
        result[count++] = itself ? emulator.self.data() : const_cast<char*>(program);
        ++arguments;
    }
    for (; *arguments != nullptr; ++arguments) {
        result.at(count++) = *arguments;
    }
    return result;
}

}  // namespace

extern "C" {

int __real_posix_spawnp(pid_t* pid, const char* program, const posix_spawn_file_actions_t* actions,
                        const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment);

int __wrap_posix_spawnp(pid_t* pid, const char* program, const posix_spawn_file_actions_t* actions,
                        const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment)
{
    const Arguments emulated = Emulated(program, arguments);
    return __real_posix_spawnp(pid, emulated[0], actions, attributes, emulated.data(), environment);
}

int __wrap_posix_spawn(pid_t* pid, const char* program, const posix_spawn_file_actions_t* actions,
                       const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment)
{
    return __wrap_posix_spawnp(pid, program, actions, attributes, arguments, environment);
}

int __wrap_execv(const char* program, char* const* arguments)
{
    const Arguments emulated = Emulated(program, arguments);
    return execvp(emulated[0], emulated.data());
}

}  // extern "C"
