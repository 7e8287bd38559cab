#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "scenario.h"

namespace tivra_monitord {

// The JSON forms of devices, nodes and events, shared by scenario files and
// the control interface. Errors are ScenarioError naming the source and the
// field path ("timeline[2].node.deviceType") and what is wrong.

// Reads the fields of one JSON object.
class JsonFields {
public:
    JsonFields(const nlohmann::json& value, std::string path, std::string source);

    [[noreturn]] void Fail(const std::string& what, const std::string& field = "") const;
    std::string Path(const std::string& field) const;
    const nlohmann::json* Find(const std::string& field) const;
    const nlohmann::json& Require(const std::string& field) const;
    std::string String(const std::string& field, bool required = true) const;
    int32_t Int32(const std::string& field) const;
    const std::string& source() const { return source_; }

private:
    const nlohmann::json& value_;
    std::string path_;
    std::string source_;
};

DeviceEntry DeviceFromJson(const nlohmann::json& value, const std::string& path, const std::string& source);
NodeEntry NodeFromJson(const nlohmann::json& value, const std::string& path, const std::string& source);
TimelineEvent EventFromJson(const nlohmann::json& value, const std::string& path, const std::string& source);

nlohmann::json ToJson(const DeviceEntry& device);
nlohmann::json ToJson(const NodeEntry& node);
nlohmann::json ToJson(const TimelineEvent& event);

}  // namespace tivra_monitord
