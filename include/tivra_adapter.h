#pragma once

// The public interface of libtivra: what a client process sees of the user's
// distributed device network. Only standard C++ types appear here.

#include <cstdint>
#include <string>

namespace Communication {

// Kinds of device that a node reports, named after their one-byte codes.
enum DeviceType : int32_t {
    DEVICE_TYPE_UNKNOWN = 0x00,
    DEVICE_TYPE_03 = 0x03,
    DEVICE_TYPE_0A = 0x0A,
    DEVICE_TYPE_0B = 0x0B,
    DEVICE_TYPE_0C = 0x0C,
    DEVICE_TYPE_0E = 0x0E,
    DEVICE_TYPE_11 = 0x11,
    DEVICE_TYPE_2E = 0x2E,
    DEVICE_TYPE_6D = 0x6D,
    DEVICE_TYPE_83 = 0x83,
    DEVICE_TYPE_85 = 0x85,
    DEVICE_TYPE_98 = 0x98,
    DEVICE_TYPE_9C = 0x9C,
    DEVICE_TYPE_9D = 0x9D,
    DEVICE_TYPE_9E = 0x9E,
    DEVICE_TYPE_A0 = 0xA0,
    DEVICE_TYPE_A7 = 0xA7,
    DEVICE_TYPE_AE = 0xAE,
    DEVICE_TYPE_B1 = 0xB1,
    DEVICE_TYPE_B2 = 0xB2,
    DEVICE_TYPE_F0 = 0xF0,
    DEVICE_TYPE_F1 = 0xF1,
};

// Kinds of node information change. The device monitor service defines what
// kinds 1 to 3 mean and the library passes them through unchanged; any other
// kind it receives is delivered as DEVICE_INFO_TYPE_UNKNOWN.
enum DeviceInfoType : int32_t {
    DEVICE_INFO_TYPE_UNKNOWN = 0,
    DEVICE_INFO_TYPE_1 = 1,
    DEVICE_INFO_TYPE_2 = 2,
    DEVICE_INFO_TYPE_3 = 3,
};

// A device of the network, as handed to clients. Every getter returns a copy.
class TivraDeviceInfo {
public:
    virtual ~TivraDeviceInfo() = default;
    virtual std::string GetDeviceName() const = 0;
    virtual std::string GetDeviceId() const = 0;
    virtual std::string GetDeviceType() const = 0;
    virtual std::string GetDeviceIp() const = 0;
};

// A node of the network, as handed to clients. Strings are returned as copies.
class NodeBasicInfo {
public:
    virtual ~NodeBasicInfo() = default;
    virtual std::string GetName() const = 0;
    virtual DeviceType GetDeviceType() const = 0;
    virtual std::string GetNodeId() const = 0;
};

}  // namespace Communication
