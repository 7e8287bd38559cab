#include "tivra_death_notifier_inner.h"

#include <utility>

#include "tivra_adapter_inner.h"
#include "tivra_log.h"

namespace Communication {

TivraDeathNotifierInner::TivraDeathNotifierInner(std::shared_ptr<TivraDeathNotifier> notifier,
                                                 TivraAdapterInner* adapter)
    : notifier_(std::move(notifier)), adapter_(adapter) {}

TivraDeathNotifierInner::~TivraDeathNotifierInner() = default;

void TivraDeathNotifierInner::binderDied(const android::wp<android::IBinder>& /*who*/) {
    if (adapter_ != nullptr) {
        adapter_->ForgetDeadService(notifier_);
    }
    TIVRA_LOGI("%s: receive death notify, clear pravik service is %s", "binderDied",
               adapter_ != nullptr ? "success" : "failed");
    if (notifier_ != nullptr) {
        notifier_->OnServiceDied();
    }
}

}  // namespace Communication
