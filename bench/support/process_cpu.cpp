#include "process_cpu.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace tivra_bench {

double cpuMicroseconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) {
        return -1;
    }
    // The command name may hold spaces and parentheses: the fields that count
    // start after its last ')'. utime and stime are fields 14 and 15.
    const size_t nameEnd = line.rfind(')');
    if (nameEnd == std::string::npos) {
        return -1;
    }
    std::istringstream fields(line.substr(nameEnd + 1));
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    long long user = 0;
    long long system = 0;
    if (!(fields >> user >> system)) {
        return -1;
    }
    return static_cast<double>(user + system) * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace tivra_bench
