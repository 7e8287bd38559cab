// Built against an installed libtivra by install_test.sh: where the library's
// log lines go under <tivra/tivra_log.h>. Run without binderd, each
// RegisterCallback below writes one error line, "RegisterCallback: get pravik
// service failed". Prints what the sink received; the last line goes to stderr.
#include <tivra/tivra_adapter.h>
#include <tivra/tivra_log.h>

#include <cstdio>
#include <string>

using namespace Communication;

int main() {
    const std::shared_ptr<TivraAdapter> adapter = TivraAdapter::GetInstance();
    std::string received;
    SetTivraLogSink([&received](TivraLogPriority priority, const std::string& tag, const std::string& message) {
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
