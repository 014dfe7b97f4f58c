// micro: what the library's single operations cost without a host platform below them, each row with its heap
// allocations per operation. A Google Benchmark program: its options are that library's.
#include "benchmarks/micro/Program.h"

int main(int argc, char** argv)
{
    return bench::RunRows(argc, argv, [] {
        bench::RegisterDecodeRows();
        bench::RegisterNullPlatformRow();
    });
}
