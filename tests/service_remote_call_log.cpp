#include "service_remote_call_log.h"

#include <gtest/gtest.h>

#include <utility>

namespace tivra_service_test {
namespace {

// Text travels as UTF-16, which keeps the UTF-8 of the descriptions whole.
void WriteText(android::Parcel& parcel, const std::string& text) { parcel.writeString16(android::String16(text.c_str())); }

android::status_t ReadText(const android::Parcel& parcel, std::string* text) {
    android::String16 value;
    const android::status_t status = parcel.readString16(&value);
    *text = Utf8(value);
    return status;
}

void WriteRecord(android::Parcel& parcel, const CallRecord& record) {
    parcel.writeUint32(static_cast<uint32_t>(record.transactions.size()));
    for (const WireTransaction& transaction : record.transactions) {
        parcel.writeUint32(transaction.code);
        parcel.writeUint32(transaction.flags);
        parcel.writeUint32(static_cast<uint32_t>(transaction.data.size()));
        parcel.write(transaction.data.data(), transaction.data.size());
    }
    parcel.writeUint32(static_cast<uint32_t>(record.received.size()));
    for (const Received& call : record.received) {
        WriteText(parcel, call.method);
        parcel.writeUint32(static_cast<uint32_t>(call.inputs.size()));
        for (const std::string& input : call.inputs) {
            WriteText(parcel, input);
        }
    }
}

// Stops at the first failing read and returns its code.
android::status_t ReadRecord(const android::Parcel& parcel, CallRecord* record) {
    uint32_t count = 0;
    android::status_t status = parcel.readUint32(&count);
    for (uint32_t i = 0; status == android::OK && i < count; ++i) {
        WireTransaction transaction{};
        uint32_t size = 0;
        status = parcel.readUint32(&transaction.code);
        status = status != android::OK ? status : parcel.readUint32(&transaction.flags);
        status = status != android::OK ? status : parcel.readUint32(&size);
        if (status == android::OK) {
            transaction.data.resize(size);
            status = parcel.read(transaction.data.data(), size);
        }
        record->transactions.push_back(std::move(transaction));
    }
    status = status != android::OK ? status : parcel.readUint32(&count);
    for (uint32_t i = 0; status == android::OK && i < count; ++i) {
        Received call;
        uint32_t inputs = 0;
        status = ReadText(parcel, &call.method);
        status = status != android::OK ? status : parcel.readUint32(&inputs);
        for (uint32_t input = 0; status == android::OK && input < inputs; ++input) {
            call.inputs.emplace_back();
            status = ReadText(parcel, &call.inputs.back());
        }
        record->received.push_back(std::move(call));
    }
    return status;
}

}  // namespace

android::status_t CallLogControl::onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                             uint32_t flags) {
    switch (code) {
        case kTake: {
            int32_t calls = 0;
            const android::status_t status = data.readInt32(&calls);
            if (status != android::OK) {
                return status;
            }
            WriteRecord(*reply, log_.Take(static_cast<size_t>(calls)));
            return android::OK;
        }
        case kAnswer: {
            Status answer;
            const android::status_t status = answer.readFromParcel(data);
            if (status == android::OK) {
                log_.Answer(answer);
            }
            return status;
        }
        default:
            return BBinder::onTransact(code, data, reply, flags);
    }
}

CallRecord RemoteCallLog::Take(size_t calls) {
    android::Parcel data;
    android::Parcel reply;
    data.writeInt32(static_cast<int32_t>(calls));
    CallRecord record;
    const android::status_t sent = control_->transact(CallLogControl::kTake, data, &reply);
    EXPECT_EQ(sent, android::OK) << "taking the remote log";
    if (sent == android::OK) {
        EXPECT_EQ(ReadRecord(reply, &record), android::OK) << "reading the remote log";
    }
    return record;
}

void RemoteCallLog::Answer(const Status& answer) {
    android::Parcel data;
    android::Parcel reply;
    answer.writeToParcel(&data);
    EXPECT_EQ(control_->transact(CallLogControl::kAnswer, data, &reply), android::OK) << "setting the remote answer";
}

}  // namespace tivra_service_test
