#include "service_wire_table.h"

namespace tivra_service_test {

std::vector<WireRow> RowsOf(Tag<IDeviceMonitorService>) {
    return {
        {1, "addOnDeviceChangeListener", "IDeviceChangeListener->"},
        {2, "removeOnDeviceChangeListener", "IDeviceChangeListener->"},
        {3, "getAllDevices", "->DeviceInfoExternalList"},
        {4, "getLocalDevice", "->DeviceInfoExternal"},
        {5, "getPeripherals", "String16->"},
        {6, "onDeviceFound", "String16,int32->"},
        {7, "startDiscovery", "->"},
        {8, "stopDiscovery", "->"},
        {9, "setRequestFlag", "bool->"},
        {10, "deviceMonitorEnable", "bool->"},
        {11, "addOnDeviceChangeListenerPassive", "IDeviceChangeListener->"},
        {12, "removeOnDeviceChangeListenerPassive", "IDeviceChangeListener->"},
        {13, "getBatteryInfo", "String16->int32"},
        {14, "setDistributedAbilityStatus", "String16,bool->"},
        {15, "isDistributedAbilityEnabled", "String16->bool"},
        {16, "setDiscoveryMode", "int32,int64->"},
        {17, "getVistroDeviceIDByMac", "String16->String16"},
        {18, "getVistroDeviceMACByID", "String16->String16"},
        {19, "flushDevice", "String16,bool->int32"},
        {20, "getNearFieldDevices", "->DeviceInfoExternalList"},
        {21, "getVersionType", "String16->String16"},
        {22, "getLocalNodeBasicInfo", "->"},
        {23, "getNodeBasicInfo", "String16->"},
        {24, "getAllNodeBasicInfo", "->"},
        {25, "getDeviceId", "String16->String16"},
        {26, "getGroupNodeBasicInfo", "int32->"},
        {27, "getNodeInfo", "String16,String16->String16"},
        {28, "connectDevice", "->"},
        {29, "connectVerifiedDevice", "->"},
        {30, "disconnectDevice", "->"},
        {31, "verifyDevice", "->"},
        {32, "setTivraPolicy", "int32,int64->"},
        {33, "triggerDeviceJoinNetworking", "->"},
        {34, "triggerDeviceQuitNetworking", "->"},
        {35, "addDeviceChangeListener", "IDeviceListener->bool"},
        {36, "removeDeviceChangeListener", "IDeviceListener->"},
        {37, "addDeviceChangeListenerPassive", "IDeviceListener->"},
        {38, "removeDeviceChangeListenerPassive", "IDeviceListener->"},
        {39, "getLocalBasicInfo", "->NodeBasicInfoInner"},
        {40, "getRemoteNodeBasicInfo", "String16->NodeBasicInfoInner"},
        {41, "getRemoteNodesBasicInfo", "->NodeBasicInfoList"},
        {42, "getNodeExtInfo", "String16,String16->String16"},
        {43, "getUdidByNodeId", "String16->String16"},
        {44, "getUuidByNodeId", "String16->String16"},
    };
}

std::vector<WireRow> RowsOf(Tag<IDeviceChangeListener>) {
    return {{1, "onDeviceOnline", "DeviceInfoExternal->"}, {2, "onDeviceOffline", "DeviceInfoExternal->"}};
}

std::vector<WireRow> RowsOf(Tag<IDeviceListener>) {
    return {{1, "onDeviceOnline", "NodeBasicInfoInner->"},
            {2, "onDeviceOffline", "NodeBasicInfoInner->"},
            {3, "onDeviceInfoChanged", "String16,DeviceInfoTypeInner->"}};
}

std::vector<NamedCaller<IDeviceMonitorService>> CallersOf(Tag<IDeviceMonitorService>) {
    return {TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS(TIVRA_TEST_CALLER, DeviceMonitorService)};
}
std::vector<NamedCaller<IDeviceChangeListener>> CallersOf(Tag<IDeviceChangeListener>) {
    return {TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS(TIVRA_TEST_CALLER, DeviceChangeListener)};
}
std::vector<NamedCaller<IDeviceListener>> CallersOf(Tag<IDeviceListener>) {
    return {TIVRA_DEVICE_LISTENER_TRANSACTIONS(TIVRA_TEST_CALLER, DeviceListener)};
}

}  // namespace tivra_service_test
