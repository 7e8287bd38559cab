// Built against an installed libtivra by install_test.sh and run without
// binderd, where each RegisterCallback below logs one error line. First the
// program sets the platform log itself and calls nothing of tivra_log.h: the
// library must leave its minimum priority and logger alone. Then the header's
// sink and minimum. Prints what each destination received; the last line goes
// to stderr.
#include <tivra/tivra_adapter.h>
#include <tivra/tivra_log.h>

#include <dlfcn.h>

#include <cstdio>
#include <string>

using namespace Communication;

namespace {

std::string received;

using PlatformLogger = void (*)(const void* details, const char* message);

void ProgramLogger(const void* /*details*/, const char* message) {
    received += std::string("program's logger: ") + message + "\n";
}

// A function of the platform log, which libtivra brought into the process.
template <typename Function>
Function Platform(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
}

}  // namespace

int main() {
    const auto setMinimum = Platform<int (*)(int)>("__android_log_set_minimum_priority");
    const auto getMinimum = Platform<int (*)()>("__android_log_get_minimum_priority");
    const auto setLogger = Platform<void (*)(PlatformLogger)>("__android_log_set_logger");
    if (setMinimum == nullptr || getMinimum == nullptr || setLogger == nullptr) {
        std::fprintf(stderr, "log_client: the platform log is not in the process\n");
        return 1;
    }
    constexpr int kWarn = 5;
    setMinimum(kWarn);
    setLogger(ProgramLogger);
    const std::shared_ptr<TivraAdapter> adapter = TivraAdapter::GetInstance();
    adapter->RegisterCallback(nullptr);  // to the program's logger
    if (getMinimum() != kWarn) {
        received += "minimum priority changed to " + std::to_string(getMinimum()) + "\n";
    }

    SetTivraLogSink([](TivraLogPriority priority, const std::string& tag, const std::string& message) {
        received += std::to_string(priority) + " " + tag + ": " + message + "\n";
    });
    adapter->RegisterCallback(nullptr);  // to the sink
    SetTivraLogMinPriority(TIVRA_LOG_SILENT);
    adapter->RegisterCallback(nullptr);  // dropped
    SetTivraLogMinPriority(TIVRA_LOG_INFO);
    SetTivraLogSink(nullptr);
    adapter->RegisterCallback(nullptr);  // to stderr again
    std::fputs(received.c_str(), stdout);
    return 0;
}
