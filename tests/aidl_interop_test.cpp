// Code that the platform's AIDL compiler generated from tests/aidl, against a
// peer written by hand on hostbinder's Parcel in another process, both ways:
// the generated proxy calls the hand-written stub, and the hand-written proxy
// calls the generated stub. Each generated path runs once.
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
#include <mutex>
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

Fields WithNote(Fields fields, std::optional<std::string> note) {
    fields.note = std::move(note);
    return fields;
}

// ---- The peer written by hand ------------------------------------------------

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
        std::optional<Fields> sample;
        sp<IBinder> first;
        sp<IBinder> second;
        switch (code) {
            case kEcho: {
                if (!ReadSample(data, &sample)) return BAD_VALUE;
                const std::optional<std::string> note = ReadText(data);
                const int32_t codes = data.readInt32();
                reply->writeInt32(Status::EX_NONE);
                WriteSample(*reply, sample ? std::optional(WithNote(*sample, note)) : std::nullopt);
                reply->writeInt32(codes);
                for (int32_t i = 0; i < codes; ++i) reply->writeInt32((sample ? sample->id : 0) + i);
                return OK;
            }
            case kPick:
                data.readStrongBinder(&first);
                data.readNullableStrongBinder(&second);
                reply->writeInt32(Status::EX_NONE);
                return reply->writeStrongBinder(second);
            default: {
                if (data.readStrongBinder(&first) != OK || !ReadSample(data, &sample)) return BAD_VALUE;
                Parcel call;
                call.writeInterfaceToken(kCallbackDescriptor);
                WriteSample(call, sample);
                return first->transact(kOnSample, call, nullptr, IBinder::FLAG_ONEWAY);
            }
        }
    }
};

// Keeps the samples that reach it, from either kind of proxy.
class SampleLog {
public:
    void Add(const Fields& sample) {
        std::lock_guard<std::mutex> lock(mLock);
        mSamples.push_back(sample);
    }
    std::vector<Fields> Samples() const {
        std::lock_guard<std::mutex> lock(mLock);
        return mSamples;
    }

private:
    mutable std::mutex mLock;
    std::vector<Fields> mSamples;
};

class HandCallback : public BBinder, public SampleLog {
protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != kOnSample) return BBinder::onTransact(code, data, reply, flags);
        std::optional<Fields> sample;
        if (!data.enforceInterface(kCallbackDescriptor) || !ReadSample(data, &sample) || !sample) return BAD_VALUE;
        Add(*sample);
        return OK;
    }
};

// ---- The generated side --------------------------------------------------------

Sample SampleOf(const Fields& fields) {
    Sample sample;
    sample.id = fields.id;
    sample.name = fields.name;
    if (fields.note) sample.note = std::make_unique<String16>(Text16(*fields.note));
    for (const std::string& tag : fields.tags) sample.tags.push_back(Text16(tag));
    return sample;
}

Fields FieldsOf(const Sample& sample) {
    Fields fields{sample.id, sample.name, std::nullopt, {}};
    if (sample.note) fields.note = Text8(*sample.note);
    for (const String16& tag : sample.tags) fields.tags.push_back(Text8(tag));
    return fields;
}

class GeneratedCallback : public BnCallback, public SampleLog {
public:
    Status onSample(const Sample& sample) override {
        Add(FieldsOf(sample));
        return Status::ok();
    }
};

class GeneratedPeer : public BnPeer {
public:
    Status echo(const std::unique_ptr<Sample>& sample, const std::unique_ptr<String16>& note,
                std::vector<int32_t>* codes, std::unique_ptr<Sample>* result) override {
        for (size_t i = 0; i < codes->size(); ++i) (*codes)[i] = (sample ? sample->id : 0) + static_cast<int32_t>(i);
        if (sample) {
            const std::optional<std::string> text = note ? std::optional(Text8(*note)) : std::nullopt;
            *result = std::make_unique<Sample>(SampleOf(WithNote(FieldsOf(*sample), text)));
        }
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

// ---- Both ways: each side in a process of its own ---------------------------------

const String16 kServiceName(u"tivra.aidltest.peer");

int CallThroughTheGeneratedProxy() {
    ProcessState::self()->startThreadPool();
    const sp<IPeer> peer = interface_cast<IPeer>(defaultServiceManager()->checkService(kServiceName));
    CHILD_CHECK(peer != nullptr);

    std::unique_ptr<Sample> echoed;
    std::vector<int32_t> codes(3);
    CHILD_CHECK(peer->echo(std::make_unique<Sample>(SampleOf(kSample)), std::make_unique<String16>(u"n"), &codes,
                           &echoed).isOk());
    CHILD_CHECK(echoed != nullptr && FieldsOf(*echoed) == WithNote(kSample, "n"));
    CHILD_CHECK(codes == (std::vector<int32_t>{7, 8, 9}));
    CHILD_CHECK(peer->echo(nullptr, nullptr, &codes, &echoed).isOk());
    CHILD_CHECK(echoed == nullptr);

    const sp<GeneratedCallback> first = new GeneratedCallback();
    const sp<GeneratedCallback> second = new GeneratedCallback();
    sp<ICallback> picked = first;
    CHILD_CHECK(peer->pick(first, nullptr, &picked).isOk() && picked == nullptr);
    CHILD_CHECK(peer->pick(first, second, &picked).isOk());
    CHILD_CHECK(picked == sp<ICallback>(second));  // back home as the object itself

    CHILD_CHECK(peer->post(first, SampleOf(kSample)).isOk());
    CHILD_CHECK(waitUntil([&] { return !first->Samples().empty(); }));
    CHILD_CHECK(first->Samples() == std::vector<Fields>{kSample});
    return 0;
}

int CallByHand() {
    ProcessState::self()->startThreadPool();
    const sp<IBinder> peer = defaultServiceManager()->checkService(kServiceName);
    CHILD_CHECK(peer != nullptr);
    const auto call = [&peer](uint32_t code, const std::function<void(Parcel&)>& fill, Parcel* reply) {
        Parcel data;
        data.writeInterfaceToken(kPeerDescriptor);
        fill(data);
        return peer->transact(code, data, reply, reply == nullptr ? IBinder::FLAG_ONEWAY : 0);
    };
    Parcel echo;
    CHILD_CHECK(call(kEcho, [](Parcel& data) {
        WriteSample(data, kSample);
        WriteText(data, "n");
        data.writeInt32(2);  // the size of the out vector
    }, &echo) == OK);
    std::optional<Fields> echoed;
    CHILD_CHECK(echo.readInt32() == Status::EX_NONE && ReadSample(echo, &echoed));
    CHILD_CHECK(echoed == WithNote(kSample, "n"));
    CHILD_CHECK(echo.readInt32() == 2 && echo.readInt32() == 7 && echo.readInt32() == 8);

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
    CHILD_CHECK(waitUntil([&] { return !first->Samples().empty(); }));
    CHILD_CHECK(first->Samples() == std::vector<Fields>{kSample});
    return 0;
}

class AidlInterop : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(session.started()) << session.error(); }

    // Serves `peer` in a child, then runs `client` in another.
    int Run(const std::function<sp<IBinder>()>& peer, const std::function<int()>& client) {
        Channel ready;
        session.spawn([&] {
            ProcessState::self()->startThreadPool();
            CHILD_CHECK(defaultServiceManager()->addService(kServiceName, peer()) == OK);
            ready.post("ready");
            IPCThreadState::self()->joinThreadPool();
            return 0;
        });
        if (ready.next() != "ready") return -1;
        return session.waitExit(session.spawn(client));
    }

    BinderdSession session;
};

TEST_F(AidlInterop, GeneratedProxyCallsAHandWrittenStub) {
    EXPECT_EQ(Run([] { return sp<IBinder>(new HandPeer()); }, CallThroughTheGeneratedProxy), 0);
}

TEST_F(AidlInterop, HandWrittenProxyCallsAGeneratedStub) {
    EXPECT_EQ(Run([] { return sp<IBinder>(new GeneratedPeer()); }, CallByHand), 0);
}

}  // namespace
