#pragma once

// The public interface of libtivra: what a client process sees of the user's
// distributed device network. Only standard C++ types appear here.
//
//   #include <tivra/tivra_adapter.h>      link with: pkg-config --libs tivra

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

// Everything declared here is the library's exported interface; the rest of
// libtivra.so is hidden.
#pragma GCC visibility push(default)

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
    virtual ~TivraDeviceInfo();
    virtual std::string GetDeviceName() const = 0;
    virtual std::string GetDeviceId() const = 0;
    virtual std::string GetDeviceType() const = 0;
    virtual std::string GetDeviceIp() const = 0;
};

// A node of the network, as handed to clients. Strings are returned as copies.
class NodeBasicInfo {
public:
    virtual ~NodeBasicInfo();
    virtual std::string GetName() const = 0;
    virtual DeviceType GetDeviceType() const = 0;
    virtual std::string GetNodeId() const = 0;
};

// Told when devices come online or go offline. Calls arrive on the process's
// Binder threads with no library lock held; each record is a new object that
// the listener owns.
class TivraListener {
public:
    virtual ~TivraListener();
    virtual void OnDeviceOnline(std::shared_ptr<TivraDeviceInfo> device) = 0;
    virtual void OnDeviceOffline(std::shared_ptr<TivraDeviceInfo> device) = 0;
};

// Told once, on a Binder thread, when the device monitor service dies. Link
// again after the service is back to hear of its next death.
class TivraDeathNotifier {
public:
    virtual ~TivraDeathNotifier();
    virtual void OnServiceDied() = 0;
};

// Told when nodes come online, go offline or change their information.
class DeviceListener {
public:
    virtual ~DeviceListener();
    virtual void OnDeviceOnline(std::shared_ptr<NodeBasicInfo> node) = 0;
    virtual void OnDeviceOffline(std::shared_ptr<NodeBasicInfo> node) = 0;
    virtual void OnDeviceInfoChanged(std::string nodeId, DeviceInfoType type) = 0;
};

// Keys of GetNodeExtInfo, each named after its value.
const std::string DEVICE_NAME = "DEVICE_NAME";
const std::string DEVICE_TYPE = "DEVICE_TYPE";
const std::string VERSION_TYPE = "VERSION_TYPE";
const std::string NETWORK_TYPE = "NETWORK_TYPE";
const std::string CONN_CAP = "CONN_CAP";
const std::string BR_MAC = "BR_MAC";
const std::string IS_SUPPORT_P2P = "IS_SUPPORT_P2P";
const std::string IS_P2P_ENABLED = "IS_P2P_ENABLED";
const std::string IS_SUPPORT_BLE = "IS_SUPPORT_BLE";
const std::string IS_BLE_ENABLED = "IS_BLE_ENABLED";
const std::string IS_ACCOUNT_TRUST = "IS_ACCOUNT_TRUST";
const std::string GROUP_INFO = "GROUP_INFO";

// What GetLocalDevice and GetAllDevices write to their errCode argument.
enum TivraErrCode : int {
    TIVRA_ERR_OK = 0,
    TIVRA_ERR_SERVICE_UNAVAILABLE = 1,  // no device monitor service is registered
    TIVRA_ERR_CALL_FAILED = 2,          // the call failed, or its answer could not be read
};

// The process-wide entry point. Nothing throws: operations report failure by
// their result, and GetLocalDevice/GetAllDevices also through errCode
// (a TivraErrCode).
class TivraAdapter {
public:
    // The one adapter of this process; creating it starts the Binder thread
    // pool. Never empty.
    static std::shared_ptr<TivraAdapter> GetInstance();

    virtual ~TivraAdapter();

    virtual bool RegisterCallback(std::shared_ptr<TivraListener> listener) = 0;
    virtual bool UnregisterCallback(std::shared_ptr<TivraListener> listener) = 0;
    virtual std::shared_ptr<TivraDeviceInfo> GetLocalDevice(int& errCode) = 0;
    virtual std::vector<std::shared_ptr<TivraDeviceInfo>> GetAllDevices(int& errCode) = 0;
    virtual bool LinkToDeath(std::shared_ptr<TivraDeathNotifier> notifier) = 0;
    virtual bool UnlinkToDeath(std::shared_ptr<TivraDeathNotifier> notifier) = 0;
    virtual bool AddDeviceChangeListener(const std::shared_ptr<DeviceListener>& listener) = 0;
    virtual void RemoveDeviceChangeListener(const std::shared_ptr<DeviceListener>& listener) = 0;
    virtual std::shared_ptr<NodeBasicInfo> GetLocalBasicInfo() = 0;
    virtual std::shared_ptr<NodeBasicInfo> GetRemoteNodeBasicInfo(const std::string& nodeId) = 0;
    virtual std::list<std::shared_ptr<NodeBasicInfo>> GetRemoteNodesBasicInfo() = 0;
    virtual std::string GetNodeExtInfo(const std::string& nodeId, const std::string& key) = 0;
    virtual std::string GetUdidByNodeId(const std::string& nodeId) = 0;
    virtual std::string GetUuidByNodeId(const std::string& nodeId) = 0;
};

}  // namespace Communication

#pragma GCC visibility pop
