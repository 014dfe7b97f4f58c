// A private runtime directory of the host platform for one run: made for it, removed with it.
#ifndef REPORT_EVENT_BENCHMARKS_RUNTIME_DIRECTORY_H
#define REPORT_EVENT_BENCHMARKS_RUNTIME_DIRECTORY_H

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "benchmarks/common/System.h"

namespace bench {

// Made before the first thread and the first child: it sets IAM_RUNTIME_DIR for this process and all it starts.
class RuntimeDirectory {
public:
    RuntimeDirectory()
    {
        std::string path = (std::filesystem::temp_directory_path() / "report-event-bench-XXXXXX").string();
        if (mkdtemp(path.data()) == nullptr) {
            ThrowErrno("cannot make " + path);
        }
        path_ = path;
        Check(setenv("IAM_RUNTIME_DIR", path.c_str(), 1), "setenv");
    }
    RuntimeDirectory(const RuntimeDirectory&) = delete;
    RuntimeDirectory& operator=(const RuntimeDirectory&) = delete;
    ~RuntimeDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

private:
    std::filesystem::path path_;
};

}  // namespace bench

#endif  // REPORT_EVENT_BENCHMARKS_RUNTIME_DIRECTORY_H
