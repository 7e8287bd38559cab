#include "hostbinder_test_service.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

namespace tivra_test {

using android::IBinder;
using android::OK;
using android::Parcel;
using android::sp;
using android::status_t;

void StreamOrder::note(int32_t stream, int32_t sequence, bool wrong) {
    auto [it, first] = streams.try_emplace(stream, sequence, 0);
    violations += wrong || (!first && sequence != it->second.first + 1) ? 1 : 0;
    it->second.first = sequence;
    ++it->second.second;
    ++total;
}

int StreamOrder::countOf(int32_t stream) const {
    auto it = streams.find(stream);
    return it == streams.end() ? 0 : it->second.second;
}

namespace {

class TestServiceBinder : public android::BBinder, public TestService {
public:
    TestServiceBinder(Channel* ready, Channel* release) : mReady(ready), mRelease(release) {}

    const android::String16& getInterfaceDescriptor() const override {
        static const android::String16 descriptor("tivra.test.IService");
        return descriptor;
    }

protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case kEcho:
                return reply->write(data.data(), data.dataSize());
            case kWhoCalls:
                reply->writeInt32(android::IPCThreadState::self()->getCallingPid());
                return reply->writeInt32(static_cast<int32_t>(android::IPCThreadState::self()->getCallingUid()));
            case kLookUpAndRecord:
                // The thread waits for binderd here while later calls arrive.
                android::defaultServiceManager()->checkService(android::String16("tivra.test.absent"));
                [[fallthrough]];
            case kRecord: {
                const int32_t stream = data.readInt32();
                const int32_t sequence = data.readInt32();
                std::lock_guard<std::mutex> lock(mLock);
                // A one-way call is served with a reply parcel all the same.
                mRecords.note(stream, sequence, reply == nullptr);
                return OK;
            }
            case kStats: {
                std::lock_guard<std::mutex> lock(mLock);
                reply->writeInt32(mRecords.total);
                return reply->writeInt32(mRecords.violations);
            }
            case kAddListener: {
                std::lock_guard<std::mutex> lock(mLock);
                mListeners.push_back(data.readStrongBinder());
                return OK;
            }
            case kRemoveListener: {
                sp<IBinder> listener = data.readStrongBinder();
                std::lock_guard<std::mutex> lock(mLock);
                auto found = std::find(mListeners.begin(), mListeners.end(), listener);
                const bool registered = found != mListeners.end();
                if (registered) {
                    mListeners.erase(found);
                }
                return reply->writeBool(registered);
            }
            case kNotify: {
                const int32_t value = data.readInt32();
                std::vector<sp<IBinder>> listeners;
                {
                    std::lock_guard<std::mutex> lock(mLock);
                    listeners = mListeners;
                }
                for (const sp<IBinder>& listener : listeners) {
                    Parcel event;
                    event.writeInt32(value);
                    listener->transact(kListenerEvent, event, nullptr, FLAG_ONEWAY);
                }
                return OK;
            }
            case kGiveListener: {
                std::lock_guard<std::mutex> lock(mLock);
                return reply->writeStrongBinder(mListeners.empty() ? nullptr : mListeners.back());
            }
            case kAnswerWith: {
                const status_t status = data.readInt32();
                reply->writeInt32(status);
                return status;
            }
            case kBlockOneway:
                if (mRelease != nullptr) {
                    mReady->post("blocked");
                    mRelease->next(20s);
                }
                return OK;
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

private:
    Channel* const mReady;
    Channel* const mRelease;
    std::mutex mLock;
    StreamOrder mRecords;
    std::vector<sp<IBinder>> mListeners;
};

}  // namespace

const android::String16 kTestServiceName("tivra.test.service");

pid_t spawnTestService(BinderdSession& session, Channel& ready, const android::String16& name, Channel* release) {
    return session.spawn([&ready, name, release] {
        sp<IBinder> service = new TestServiceBinder(&ready, release);
        android::ProcessState::self()->startThreadPool();
        CHILD_CHECK(android::defaultServiceManager()->addService(name, service) == OK);
        ready.post("ready");
        android::IPCThreadState::self()->joinThreadPool();
        return 0;
    });
}

android::sp<android::IBinder> lookUpTestService(const android::String16& name) {
    return android::defaultServiceManager()->checkService(name);
}

bool recordsArrive(const android::sp<android::IBinder>& service, int32_t records, std::chrono::milliseconds timeout) {
    int32_t violations = -1;
    return waitUntil([&] {
        android::Parcel reply;
        if (service->transact(TestService::kStats, android::Parcel(), &reply) != android::OK) {
            return false;
        }
        const int32_t counted = reply.readInt32();
        violations = reply.readInt32();
        return counted == records;
    }, timeout) && violations == 0;
}

}  // namespace tivra_test
