// The resource-name check: a name is opened exactly when it has no '.', has a ':', and the text after its first ':'
// begins with "/res/".
#include <cerrno>

#include "subscriber/ReportEventServerImpl.h"
#include "tests/fuzz/Require.h"

static std::vector<std::string> g_opened;

extern "C" int __wrap_open(const char* name, int, ...)
{
    g_opened.emplace_back(name);
    errno = ENOENT;
    return -1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string name(reinterpret_cast<const char*>(data), size);
    const size_t colon = name.find(':');
    const bool acceptable =
        name.find('.') == name.npos && colon != name.npos && name.compare(colon + 1, 5, "/res/") == 0;
    g_opened.clear();
    ReportEvent::ReportEventServerImpl subscriber;
    const int result = subscriber.StartSubscribeEvent({name, name}, ReportEvent::FAULT_EVENT);
    // The check compares as C strings do, and so does the system that opens the name.
    Require(g_opened == std::vector<std::string>(acceptable ? 1 : 0, name.c_str()));
    Require(result == (acceptable ? 0xF10005 : 0xF10206));
    return 0;
}
