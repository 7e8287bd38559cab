#include "record_output.h"

#include <algorithm>
#include <cstdio>

#include "text_width.h"

namespace tivra_cli {

using nlohmann::json;

nlohmann::json ToJson(const Communication::TivraDeviceInfo& device) {
    return json{{"name", device.GetDeviceName()},
                {"id", device.GetDeviceId()},
                {"type", device.GetDeviceType()},
                {"ip", device.GetDeviceIp()}};
}

nlohmann::json ToJson(const Communication::NodeBasicInfo& node) {
    return json{{"name", node.GetName()},
                {"deviceType", static_cast<int>(node.GetDeviceType())},
                {"deviceTypeName", DeviceTypeName(node.GetDeviceType())},
                {"nodeId", node.GetNodeId()}};
}

std::string DeviceTypeName(Communication::DeviceType type) {
    if (type == Communication::DEVICE_TYPE_UNKNOWN) {
        return "DEVICE_TYPE_UNKNOWN";
    }
    char name[32];
    std::snprintf(name, sizeof(name), "DEVICE_TYPE_%02X", static_cast<unsigned>(type) & 0xFFu);
    return name;
}

Table::Table(std::vector<std::string> headings) { rows_.push_back(std::move(headings)); }

void Table::AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

std::string Table::Render() const {
    // Cells come from the service: escaped first, then measured.
    std::vector<std::vector<std::string>> shown;
    std::vector<size_t> widths;
    for (const auto& row : rows_) {
        shown.emplace_back();
        widths.resize(std::max(widths.size(), row.size()), 0);
        for (size_t i = 0; i < row.size(); ++i) {
            shown.back().push_back(Printable(row[i]));
            widths[i] = std::max(widths[i], DisplayWidth(shown.back()[i]));
        }
    }
    std::string out;
    for (const auto& row : shown) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) {
                line.append(widths[i] - DisplayWidth(row[i]) + 2, ' ');
            }
        }
        // An empty last cell leaves no spaces behind.
        line.erase(line.find_last_not_of(' ') + 1);
        out += line + "\n";
    }
    return out;
}

Table DeviceTable(const std::vector<std::shared_ptr<Communication::TivraDeviceInfo>>& devices) {
    Table table({"NAME", "ID", "TYPE", "IP"});
    for (const auto& device : devices) {
        table.AddRow({device->GetDeviceName(), device->GetDeviceId(), device->GetDeviceType(), device->GetDeviceIp()});
    }
    return table;
}

Table NodeTable(const std::list<std::shared_ptr<Communication::NodeBasicInfo>>& nodes) {
    Table table({"NAME", "TYPE", "NODE ID"});
    for (const auto& node : nodes) {
        table.AddRow({node->GetName(), DeviceTypeName(node->GetDeviceType()), node->GetNodeId()});
    }
    return table;
}

}  // namespace tivra_cli
