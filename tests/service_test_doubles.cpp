#include "service_test_doubles.h"

#include <utils/String8.h>

#include <initializer_list>
#include <string>
#include <utility>

namespace tivra_service_test {

std::string Utf8(const android::String16& text) { return android::String8(text).c_str(); }

std::string Numbered(const char* prefix, uint32_t code, size_t position) {
    return prefix + std::to_string(code) + "." + std::to_string(position);
}

DeviceInfoExternalList DeviceListOf(std::initializer_list<DeviceInfoExternal> devices) {
    DeviceInfoExternalList list;
    list.SetDeviceInfoExternalList(devices);
    return list;
}

NodeBasicInfoList NodeListOf(std::initializer_list<NodeBasicInfoInner> nodes) {
    NodeBasicInfoList list;
    for (const NodeBasicInfoInner& node : nodes) {
        list.AddNodeBasicInfoToList(node);
    }
    return list;
}

CallRecord CallLog::Take(size_t calls, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    methodReached_.wait_for(lock, timeout, [&] { return record_.received.size() >= calls; });
    return std::exchange(record_, CallRecord{});
}

void CallLog::Answer(const Status& answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    answer_ = answer;
}

void CallLog::RecordWire(uint32_t code, uint32_t flags, const android::Parcel& data) {
    std::lock_guard<std::mutex> lock(mutex_);
    record_.transactions.push_back({code, flags, Bytes(data)});
    lastCode_ = code;
}

android::status_t RecordingBinder::onTransact(uint32_t transactionCode, const android::Parcel& parcel,
                                              android::Parcel* reply, uint32_t transactionFlags) {
    code = transactionCode;
    flags = transactionFlags;
    data = Bytes(parcel);
    ++transactions;
    if (result_ == android::OK && (transactionFlags & android::IBinder::FLAG_ONEWAY) == 0) {
        return Status::ok().writeToParcel(reply);
    }
    return result_;
}

std::vector<uint8_t> Bytes(const android::Parcel& parcel) {
    return std::vector<uint8_t>(parcel.data(), parcel.data() + parcel.dataSize());
}

}  // namespace tivra_service_test
