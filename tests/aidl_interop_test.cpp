// Code that the platform's AIDL compiler generated from tests/aidl, against a
// peer written by hand on hostbinder's Parcel in another process, both ways:
// the generated proxy calls the hand-written stub, and the hand-written proxy
// calls the generated stub. Both clients make the same calls, from one table.
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <tivra/aidltest/BnCallback.h>
#include <tivra/aidltest/BnPeer.h>
#include <tivra/aidltest/IPeer.h>
#include <utils/String8.h>

#include <functional>
#include <future>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "binderd_fixture.h"

namespace {

using namespace android;
using namespace tivra_test;
using binder::Status;
using tivra::aidltest::BnCallback;
using tivra::aidltest::BnPeer;
using tivra::aidltest::ICallback;
using tivra::aidltest::IPeer;
using tivra::aidltest::Sample;

String16 Text16(const std::string& text) { return String16(text.c_str()); }
std::string Text8(const String16& text) { return String8(text).c_str(); }

// A sample as plain values, to build, compare and show.
struct Fields {
    int32_t id = 0;
    std::string name;
    std::optional<std::string> note;
    std::vector<std::string> tags;
    bool operator==(const Fields& other) const {
        return std::tie(id, name, note, tags) == std::tie(other.id, other.name, other.note, other.tags);
    }
};

const Fields kSample{7, "Ger\xC3\xA4t", std::nullopt, {"a", "\xE2\x82\xAC"}};

// The echo calls both clients make, and what every peer answers (IPeer.aidl).
struct Echo {
    std::optional<Fields> sample;
    std::optional<std::string> note;
    int32_t codes;  // the size of the out vector

    std::optional<Fields> Answer() const {
        std::optional<Fields> answer = sample;
        if (answer) answer->note = note;
        return answer;
    }
    std::vector<int32_t> Codes() const {
        std::vector<int32_t> codes;
        for (int32_t i = 0; i < this->codes; ++i) codes.push_back((sample ? sample->id : 0) + i);
        return codes;
    }
};

const Echo kEchoes[] = {
    {kSample, "n", 3},
    {Fields{-1, "x", "y", {}}, std::nullopt, 1},
    {std::nullopt, "n", 2},
    {std::nullopt, std::nullopt, 0},
};

constexpr uint32_t kEcho = IBinder::FIRST_CALL_TRANSACTION;
constexpr uint32_t kPick = kEcho + 1;
constexpr uint32_t kPost = kEcho + 2;
constexpr uint32_t kOnSample = IBinder::FIRST_CALL_TRANSACTION;
const String16 kPeerDescriptor(u"tivra.aidltest.IPeer");
const String16 kCallbackDescriptor(u"tivra.aidltest.ICallback");

void WriteText(Parcel& parcel, const std::optional<std::string>& text) {
    text ? parcel.writeString16(Text16(*text)) : parcel.writeInt32(-1);
}

std::optional<std::string> ReadText(const Parcel& parcel) {
    const size_t start = parcel.dataPosition();
    if (parcel.readInt32() == -1) return std::nullopt;
    parcel.setDataPosition(start);
    return Text8(parcel.readString16());
}

// A structured parcelable: a presence marker, then a size that counts
// itself, then the fields in order.
void WriteSample(Parcel& parcel, const std::optional<Fields>& sample) {
    parcel.writeInt32(sample ? 1 : 0);
    if (!sample) return;
    const size_t start = parcel.dataPosition();
    parcel.writeInt32(0);
    parcel.writeInt32(sample->id);
    WriteText(parcel, sample->name);
    WriteText(parcel, sample->note);
    parcel.writeInt32(static_cast<int32_t>(sample->tags.size()));
    for (const std::string& tag : sample->tags) WriteText(parcel, tag);
    const size_t end = parcel.dataPosition();
    parcel.setDataPosition(start);
    parcel.writeInt32(static_cast<int32_t>(end - start));
    parcel.setDataPosition(end);
}

// False when the size does not count exactly the fields read.
bool ReadSample(const Parcel& parcel, std::optional<Fields>* sample) {
    sample->reset();
    if (parcel.readInt32() == 0) return true;
    const size_t start = parcel.dataPosition();
    const int32_t size = parcel.readInt32();
    Fields fields;
    fields.id = parcel.readInt32();
    fields.name = ReadText(parcel).value_or("(null)");
    fields.note = ReadText(parcel);
    fields.tags.resize(std::min(parcel.readInt32(), 16));
    for (std::string& tag : fields.tags) tag = ReadText(parcel).value_or("(null)");
    *sample = fields;
    return parcel.dataPosition() - start == static_cast<size_t>(size);
}

class HandPeer : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code < kEcho || code > kPost) return BBinder::onTransact(code, data, reply, flags);
        if (!data.enforceInterface(kPeerDescriptor)) return BAD_TYPE;
        Echo echo;
        sp<IBinder> first;
        sp<IBinder> second;
        switch (code) {
            case kEcho:
                if (!ReadSample(data, &echo.sample)) return BAD_VALUE;
                echo.note = ReadText(data);
                echo.codes = data.readInt32();
                reply->writeInt32(Status::EX_NONE);
                WriteSample(*reply, echo.Answer());
                reply->writeInt32(echo.codes);
                for (int32_t code : echo.Codes()) reply->writeInt32(code);
                return OK;
            case kPick:
                data.readStrongBinder(&first);
                data.readNullableStrongBinder(&second);
                reply->writeInt32(Status::EX_NONE);
                return reply->writeStrongBinder(second);
            default: {
                if (data.readStrongBinder(&first) != OK || !ReadSample(data, &echo.sample)) return BAD_VALUE;
                Parcel call;
                call.writeInterfaceToken(kCallbackDescriptor);
                WriteSample(call, echo.sample);
                return first->transact(kOnSample, call, nullptr, IBinder::FLAG_ONEWAY);
            }
        }
    }
};

// Hands the one sample that reaches it, from either kind of proxy, to the client.
struct OneSample {
    bool Got(const Fields& expected) {
        return future.wait_for(std::chrono::seconds(10)) == std::future_status::ready && future.get() == expected;
    }
    std::promise<Fields> delivered;
    std::future<Fields> future = delivered.get_future();
};

class HandCallback : public BBinder, public OneSample {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != kOnSample) return BBinder::onTransact(code, data, reply, flags);
        std::optional<Fields> sample;
        if (!data.enforceInterface(kCallbackDescriptor) || !ReadSample(data, &sample) || !sample) return BAD_VALUE;
        delivered.set_value(*sample);
        return OK;
    }
};

std::unique_ptr<String16> Nullable16(const std::optional<std::string>& text) {
    return text ? std::make_unique<String16>(Text16(*text)) : nullptr;
}

Sample SampleOf(const Fields& fields) {
    Sample sample;
    sample.id = fields.id;
    sample.name = fields.name;
    sample.note = Nullable16(fields.note);
    for (const std::string& tag : fields.tags) sample.tags.push_back(Text16(tag));
    return sample;
}

std::optional<Fields> FieldsOf(const Sample* sample) {
    if (sample == nullptr) return std::nullopt;
    Fields fields{sample->id, sample->name, std::nullopt, {}};
    if (sample->note) fields.note = Text8(*sample->note);
    for (const String16& tag : sample->tags) fields.tags.push_back(Text8(tag));
    return fields;
}

class GeneratedCallback : public BnCallback, public OneSample {
public:
    Status onSample(const Sample& sample) override {
        delivered.set_value(*FieldsOf(&sample));
        return Status::ok();
    }
};

class GeneratedPeer : public BnPeer {
public:
    Status echo(const std::unique_ptr<Sample>& sample, const std::unique_ptr<String16>& note,
                std::vector<int32_t>* codes, std::unique_ptr<Sample>* result) override {
        const Echo echo{FieldsOf(sample.get()), note ? std::optional(Text8(*note)) : std::nullopt,
                        static_cast<int32_t>(codes->size())};
        *codes = echo.Codes();
        if (echo.sample) *result = std::make_unique<Sample>(SampleOf(*echo.Answer()));
        return Status::ok();
    }
    Status pick(const sp<ICallback>& /*first*/, const sp<ICallback>& second, sp<ICallback>* result) override {
        *result = second;
        return Status::ok();
    }
    Status post(const sp<ICallback>& callback, const Sample& sample) override {
        return callback->onSample(sample);
    }
};

const String16 kHandPeerName(u"tivra.aidltest.hand");
const String16 kGeneratedPeerName(u"tivra.aidltest.generated");

int CallThroughTheGeneratedProxy() {
    ProcessState::self()->startThreadPool();
    const sp<IPeer> peer = interface_cast<IPeer>(defaultServiceManager()->checkService(kHandPeerName));
    CHILD_CHECK(peer != nullptr);
    for (const Echo& echo : kEchoes) {
        std::unique_ptr<Sample> echoed;
        std::vector<int32_t> codes(static_cast<size_t>(echo.codes));
        CHILD_CHECK(peer->echo(echo.sample ? std::make_unique<Sample>(SampleOf(*echo.sample)) : nullptr,
                               Nullable16(echo.note), &codes, &echoed).isOk());
        CHILD_CHECK(FieldsOf(echoed.get()) == echo.Answer() && codes == echo.Codes());
    }

    const sp<GeneratedCallback> first = new GeneratedCallback();
    const sp<GeneratedCallback> second = new GeneratedCallback();
    sp<ICallback> picked = first;
    CHILD_CHECK(peer->pick(first, nullptr, &picked).isOk() && picked == nullptr);
    CHILD_CHECK(peer->pick(first, second, &picked).isOk());
    CHILD_CHECK(picked == sp<ICallback>(second));  // back home as the object itself

    CHILD_CHECK(peer->post(first, SampleOf(kSample)).isOk());
    CHILD_CHECK(first->Got(kSample));
    return 0;
}

int CallByHand() {
    ProcessState::self()->startThreadPool();
    const sp<IBinder> peer = defaultServiceManager()->checkService(kGeneratedPeerName);
    CHILD_CHECK(peer != nullptr);
    const auto call = [&peer](uint32_t code, const std::function<void(Parcel&)>& fill, Parcel* reply) {
        Parcel data;
        data.writeInterfaceToken(kPeerDescriptor);
        fill(data);
        return peer->transact(code, data, reply, reply == nullptr ? IBinder::FLAG_ONEWAY : 0);
    };
    for (const Echo& echo : kEchoes) {
        Parcel reply;
        CHILD_CHECK(call(kEcho, [&](Parcel& data) {
            WriteSample(data, echo.sample);
            WriteText(data, echo.note);
            data.writeInt32(echo.codes);
        }, &reply) == OK);
        std::optional<Fields> echoed;
        CHILD_CHECK(reply.readInt32() == Status::EX_NONE && ReadSample(reply, &echoed) && echoed == echo.Answer());
        std::vector<int32_t> codes(static_cast<size_t>(std::clamp(reply.readInt32(), 0, 16)));
        for (int32_t& code : codes) code = reply.readInt32();
        CHILD_CHECK(codes == echo.Codes());
    }

    const sp<HandCallback> first = new HandCallback();
    const sp<HandCallback> second = new HandCallback();
    Parcel refused;
    CHILD_CHECK(call(kPick, [](Parcel& data) {
        data.writeStrongBinder(nullptr);  // `first` may not be null
        data.writeStrongBinder(nullptr);
    }, &refused) == OK);
    CHILD_CHECK(refused.readInt32() == Status::EX_NULL_POINTER);
    Parcel picked;
    CHILD_CHECK(call(kPick, [&](Parcel& data) {
        data.writeStrongBinder(first);
        data.writeStrongBinder(second);
    }, &picked) == OK);
    sp<IBinder> back;
    CHILD_CHECK(picked.readInt32() == Status::EX_NONE && picked.readNullableStrongBinder(&back) == OK);
    CHILD_CHECK(back == sp<IBinder>(second));

    CHILD_CHECK(call(kPost, [&](Parcel& data) {
        data.writeStrongBinder(first);
        WriteSample(data, kSample);
    }, nullptr) == OK);
    CHILD_CHECK(first->Got(kSample));
    return 0;
}

// Both peers serve in one child; each client runs in a child of its own.
TEST(AidlInterop, GeneratedAndHandWrittenSidesCallEachOtherBothWays) {
    BinderdSession session;
    ASSERT_TRUE(session.started()) << session.error();
    Channel ready;
    session.spawn([&ready] {
        ProcessState::self()->startThreadPool();
        CHILD_CHECK(defaultServiceManager()->addService(kHandPeerName, new HandPeer()) == OK);
        CHILD_CHECK(defaultServiceManager()->addService(kGeneratedPeerName, new GeneratedPeer()) == OK);
        ready.post("ready");
        IPCThreadState::self()->joinThreadPool();
        return 0;
    });
    ASSERT_EQ(ready.next(), "ready");
    EXPECT_EQ(session.waitExit(session.spawn(CallThroughTheGeneratedProxy)), 0) << "generated proxy, hand-written stub";
    EXPECT_EQ(session.waitExit(session.spawn(CallByHand)), 0) << "hand-written proxy, generated stub";
}

}  // namespace
