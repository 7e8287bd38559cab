#include "query_commands.h"

#include <cstdio>
#include <functional>
#include <map>

#include <nlohmann/json.hpp>

#include "command_line.h"
#include "exit_codes.h"
#include "record_output.h"
#include "service_diagnosis.h"
#include "text_width.h"
#include "tivra/tivra_adapter.h"

namespace tivra_cli {
namespace {

using Communication::TivraAdapter;
using nlohmann::json;

const std::string* const kPublishedKeys[] = {
    &Communication::DEVICE_NAME,    &Communication::DEVICE_TYPE,    &Communication::VERSION_TYPE,
    &Communication::NETWORK_TYPE,   &Communication::CONN_CAP,       &Communication::BR_MAC,
    &Communication::IS_SUPPORT_P2P, &Communication::IS_P2P_ENABLED, &Communication::IS_SUPPORT_BLE,
    &Communication::IS_BLE_ENABLED, &Communication::IS_ACCOUNT_TRUST, &Communication::GROUP_INFO,
};

int Unavailable() {
    std::fprintf(stderr, "tivra: %s\n", ExplainUnavailableService().c_str());
    return kExitServiceUnavailable;
}

// Whether the device monitor service is registered: the device query's error
// code tells a missing service from a call the service refused.
bool ServicePresent() {
    int errCode = Communication::TIVRA_ERR_OK;
    TivraAdapter::GetInstance()->GetLocalDevice(errCode);
    return errCode != Communication::TIVRA_ERR_SERVICE_UNAVAILABLE;
}

// Node queries answer failures with empty results only: say which failure.
int EmptyAnswer(const char* what) {
    if (!ServicePresent()) {
        return Unavailable();
    }
    std::fprintf(stderr, "tivra: the service gave no %s (run with --verbose to see the library's log)\n", what);
    return kExitCallFailed;
}

int FromErrCode(int errCode, const char* what) {
    if (errCode == Communication::TIVRA_ERR_SERVICE_UNAVAILABLE) {
        return Unavailable();
    }
    std::fprintf(stderr, "tivra: the service failed to answer %s (run with --verbose to see the library's log)\n",
                 what);
    return kExitCallFailed;
}

void Print(const Options& options, const json& document, const std::string& text) {
    std::fputs(options.json ? (JsonText(document, options) + "\n").c_str() : text.c_str(), stdout);
}

int LocalDevice(const std::vector<std::string>&, const Options& options) {
    int errCode = Communication::TIVRA_ERR_OK;
    const auto device = TivraAdapter::GetInstance()->GetLocalDevice(errCode);
    if (errCode != Communication::TIVRA_ERR_OK) {
        return FromErrCode(errCode, "the local device");
    }
    Print(options, ToJson(*device), DeviceTable({device}).Render());
    return kExitOk;
}

int Devices(const std::vector<std::string>&, const Options& options) {
    int errCode = Communication::TIVRA_ERR_OK;
    const auto devices = TivraAdapter::GetInstance()->GetAllDevices(errCode);
    if (errCode != Communication::TIVRA_ERR_OK) {
        return FromErrCode(errCode, "the device list");
    }
    json list = json::array();
    for (const auto& device : devices) list.push_back(ToJson(*device));
    Print(options, list, DeviceTable(devices).Render());
    return kExitOk;
}

int PrintNode(const std::shared_ptr<Communication::NodeBasicInfo>& node, const Options& options) {
    if (node == nullptr) {
        return EmptyAnswer("node");
    }
    Print(options, ToJson(*node), NodeTable({node}).Render());
    return kExitOk;
}

int LocalNode(const std::vector<std::string>&, const Options& options) {
    return PrintNode(TivraAdapter::GetInstance()->GetLocalBasicInfo(), options);
}

int Node(const std::vector<std::string>& args, const Options& options) {
    return PrintNode(TivraAdapter::GetInstance()->GetRemoteNodeBasicInfo(args[0]), options);
}

int Nodes(const std::vector<std::string>&, const Options& options) {
    const auto nodes = TivraAdapter::GetInstance()->GetRemoteNodesBasicInfo();
    // Empty is also what a failure looks like: ask whether the service is there.
    if (nodes.empty() && !ServicePresent()) {
        return Unavailable();
    }
    json list = json::array();
    for (const auto& node : nodes) list.push_back(ToJson(*node));
    Print(options, list, NodeTable(nodes).Render());
    return kExitOk;
}

// Whether `nodeId` names the local node or a remote one.
bool NodeExists(TivraAdapter& adapter, const std::string& nodeId) {
    if (adapter.GetRemoteNodeBasicInfo(nodeId) != nullptr) {
        return true;
    }
    const auto local = adapter.GetLocalBasicInfo();
    return local != nullptr && local->GetNodeId() == nodeId;
}

int ExtInfo(const std::vector<std::string>& args, const Options& options) {
    const std::shared_ptr<TivraAdapter> adapter = TivraAdapter::GetInstance();
    // Every attribute of a node that is not there reads as empty: say so instead.
    if (!NodeExists(*adapter, args[0])) {
        if (!ServicePresent()) {
            return Unavailable();
        }
        std::fprintf(stderr, "tivra: no node '%s' in the network (see 'tivra nodes')\n", Printable(args[0]).c_str());
        return kExitCallFailed;
    }
    std::vector<std::string> keys;
    if (args.size() > 1) {
        keys.push_back(args[1]);
    } else {
        for (const std::string* key : kPublishedKeys) keys.push_back(*key);
    }
    // The node is there, so an empty value is the answer: the node has none.
    json values = json::object();
    Table table({"KEY", "VALUE"});
    for (const std::string& key : keys) {
        const std::string value = adapter->GetNodeExtInfo(args[0], key);
        values[key] = value;
        table.AddRow({key, value});
    }
    Print(options, values, table.Render());
    return kExitOk;
}

int PrintText(const std::string& value, const char* what, const Options& options) {
    if (value.empty()) {
        return EmptyAnswer(what);
    }
    Print(options, json{{what, value}}, Printable(value) + "\n");
    return kExitOk;
}

int Udid(const std::vector<std::string>& args, const Options& options) {
    return PrintText(TivraAdapter::GetInstance()->GetUdidByNodeId(args[0]), "udid", options);
}

int Uuid(const std::vector<std::string>& args, const Options& options) {
    return PrintText(TivraAdapter::GetInstance()->GetUuidByNodeId(args[0]), "uuid", options);
}

struct Query {
    size_t minArgs;
    size_t maxArgs;
    const char* arguments;
    const char* summary;
    std::function<int(const std::vector<std::string>&, const Options&)> run;
};

const std::map<std::string, Query>& Queries() {
    static const std::map<std::string, Query> queries = {
        {"local-device", {0, 0, "", "The local device.", LocalDevice}},
        {"devices", {0, 0, "", "Every device of the network.", Devices}},
        {"local-node", {0, 0, "", "The local node.", LocalNode}},
        {"node", {1, 1, " NODE_ID", "One remote node.", Node}},
        {"nodes", {0, 0, "", "Every remote node.", Nodes}},
        {"ext", {1, 2, " NODE_ID [KEY]", "One extended attribute of a node, or without KEY all twelve published keys.",
                 ExtInfo}},
        {"udid", {1, 1, " NODE_ID", "A node's UDID.", Udid}},
        {"uuid", {1, 1, " NODE_ID", "A node's UUID.", Uuid}},
    };
    return queries;
}

}  // namespace

bool IsQuery(const std::string& command) { return Queries().count(command) != 0; }

int RunQuery(const std::string& command, const std::vector<std::string>& args, Options& options) {
    const Query& query = Queries().at(command);
    const std::string name = "tivra " + command;
    const std::string usage = "Usage: " + name + query.arguments + " [--json|--pretty]\n" + query.summary + "\n";
    const Parsed parsed = Parse({name, usage, {}}, args, options);
    if (parsed.exit) {
        return *parsed.exit;
    }
    if (parsed.words.size() < query.minArgs || parsed.words.size() > query.maxArgs) {
        return UsageError(name, parsed.words.size() < query.minArgs ? std::string("expected") + query.arguments
                                                                    : "too many arguments");
    }
    if (const int refused = RefuseEmptyArguments(name, query.arguments, parsed.words); refused != kExitOk) {
        return refused;
    }
    return query.run(parsed.words, options);
}

}  // namespace tivra_cli
