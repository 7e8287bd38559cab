#pragma once

#include <memory>

#include <binder/IBinder.h>

#include "tivra/tivra_adapter.h"

namespace Communication {

class TivraAdapterInner;

// Recipient of the service's death. The adapter links one of its own (with no
// client notifier) and one per linked TivraDeathNotifier; each one clears the
// adapter's state that depended on the dead service, then tells its client.
class TivraDeathNotifierInner : public android::IBinder::DeathRecipient {
public:
    TivraDeathNotifierInner(std::shared_ptr<TivraDeathNotifier> notifier, TivraAdapterInner* adapter);
    ~TivraDeathNotifierInner() override;

    void binderDied(const android::wp<android::IBinder>& who) override;

private:
    std::shared_ptr<TivraDeathNotifier> notifier_;
    // The adapter holds every recipient that points to it, so it outlives them.
    TivraAdapterInner* adapter_;
};

}  // namespace Communication
