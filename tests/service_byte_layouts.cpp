#include "service_byte_layouts.h"

#include "service_test_doubles.h"

namespace tivra_service_test {

std::vector<ByteCase> ByteCases() {
    const int64_t aboveInt32 = (int64_t{1} << 32) + 0x12345678;
    const android::String16 abc("abc");
    return {
        {"setDiscoveryMode(7, 2^32 + 0x12345678)", IDeviceMonitorService::descriptor, 16, 0,
         [=](const auto& remote) { return ProxyOn<BpDeviceMonitorService>(remote)->setDiscoveryMode(7, aboveInt32); },
         [=](android::Parcel& expected) {
             expected.writeInt32(7);
             expected.writeInt64(aboveInt32);
         },
         true},
        {"onDeviceInfoChanged(\"abc\", 2)", IDeviceListener::descriptor, 3, android::IBinder::FLAG_ONEWAY,
         [=](const auto& remote) {
             return ProxyOn<BpDeviceListener>(remote)->onDeviceInfoChanged(abc, DeviceInfoTypeInner(2));
         },
         [=](android::Parcel& expected) {
             expected.writeString16(abc);
             expected.writeInt32(1);
             expected.writeInt32(2);
         },
         true},
        {"onDeviceOnline(empty device)", IDeviceChangeListener::descriptor, 1, android::IBinder::FLAG_ONEWAY,
         [](const auto& remote) {
             return ProxyOn<BpDeviceChangeListener>(remote)->onDeviceOnline(DeviceInfoExternal());
         },
         [](android::Parcel& expected) {
             expected.writeInt32(1);
             for (int field = 0; field < 4; ++field) {
                 expected.writeString16(android::String16());
             }
         },
         true},
        // The reply must also hold the string.
        {"getNodeExtInfo(\"node\", \"key\")", IDeviceMonitorService::descriptor, 42, 0,
         [](const auto& remote) {
             android::String16 value;
             return ProxyOn<BpDeviceMonitorService>(remote)->getNodeExtInfo(android::String16("node"),
                                                                            android::String16("key"), &value);
         },
         [](android::Parcel& expected) {
             expected.writeString16(android::String16("node"));
             expected.writeString16(android::String16("key"));
         },
         false},
        // A method without output is complete with the status alone.
        {"getLocalNodeBasicInfo()", IDeviceMonitorService::descriptor, 22, 0,
         [](const auto& remote) { return ProxyOn<BpDeviceMonitorService>(remote)->getLocalNodeBasicInfo(); },
         [](android::Parcel& /*expected*/) {}, true},
    };
}

std::vector<uint8_t> ExpectedBytes(const ByteCase& byteCase) {
    android::Parcel expected;
    expected.writeInterfaceToken(byteCase.descriptor);
    byteCase.layout(expected);
    return Bytes(expected);
}

}  // namespace tivra_service_test
