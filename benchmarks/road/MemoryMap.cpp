#include "benchmarks/road/MemoryMap.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace bench {

MemoryCost ReadMemoryCost(pid_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/smaps";
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    MemoryCost cost;
    bool shared = false;
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string first;
        std::string second;
        fields >> first >> second;
        if (first.back() != ':') {  // the head of a mapping: its addresses, then its permissions
            shared = second.back() == 's';
        } else if (first == "Size:" && shared) {
            cost.largestSharedKib = std::max<uint64_t>(cost.largestSharedKib, std::stoull(second));
        } else if (first == "Private_Dirty:" && !shared) {
            cost.privateDirtyKib += std::stoull(second);
        }
    }
    return cost;
}

}  // namespace bench
