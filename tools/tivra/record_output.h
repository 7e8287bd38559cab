#pragma once

#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tivra/tivra_adapter.h"

namespace tivra_cli {

// Records as JSON objects, and as rows of an aligned text table.
nlohmann::json ToJson(const Communication::TivraDeviceInfo& device);
nlohmann::json ToJson(const Communication::NodeBasicInfo& node);

// The device kind's name as the public header spells it ("DEVICE_TYPE_0E"),
// or its number when the library does not know it.
std::string DeviceTypeName(Communication::DeviceType type);

class Table {
public:
    explicit Table(std::vector<std::string> headings);
    void AddRow(std::vector<std::string> cells);
    // Every column as wide as its widest cell on a terminal, two spaces apart,
    // each cell as Printable shows it; no line ends in spaces.
    std::string Render() const;

private:
    std::vector<std::vector<std::string>> rows_;
};

Table DeviceTable(const std::vector<std::shared_ptr<Communication::TivraDeviceInfo>>& devices);
Table NodeTable(const std::list<std::shared_ptr<Communication::NodeBasicInfo>>& nodes);

}  // namespace tivra_cli
