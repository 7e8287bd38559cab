#include "resident_memory.h"

#include <fstream>
#include <string>

namespace tivra_bench {

long residentKibibytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

}  // namespace tivra_bench
