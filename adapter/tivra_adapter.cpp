#include <atomic>
#include <mutex>

#include "tivra_adapter_inner.h"

namespace Communication {

// Defined together so that they are destroyed in the reverse order: the
// registry mutexes first, the instance last. The adapter's destructor uses
// none of the mutexes, so it may run after they are gone. The instance and
// its mutex are the library's own, not symbols of its interface.
namespace {
std::shared_ptr<TivraAdapter> instance_;
std::mutex instanceMutex_;
}  // namespace
std::mutex TivraAdapterInner::listenerMapMutex_;
std::mutex TivraAdapterInner::deathNotifierMapMutex_;
std::mutex TivraAdapterInner::serviceInitMutex_;
std::mutex TivraAdapterInner::deviceListenerMapMutex_;

// Out of line, so that the vtables and type information of the public classes
// live in the library, once, under its symbol version (the records' own are
// in deviceinfo/).
TivraListener::~TivraListener() = default;
TivraDeathNotifier::~TivraDeathNotifier() = default;
DeviceListener::~DeviceListener() = default;
TivraAdapter::~TivraAdapter() = default;

std::shared_ptr<TivraAdapter> TivraAdapter::GetInstance() {
    // The unlocked first test reads the pointer atomically, and the store
    // below publishes it only after construction has finished.
    std::shared_ptr<TivraAdapter> adapter = std::atomic_load(&instance_);
    if (adapter != nullptr) {
        return adapter;
    }
    std::lock_guard<std::mutex> lock(instanceMutex_);
    adapter = std::atomic_load(&instance_);
    if (adapter == nullptr) {
        adapter = std::make_shared<TivraAdapterInner>();
        std::atomic_store(&instance_, adapter);
    }
    return adapter;
}

}  // namespace Communication
