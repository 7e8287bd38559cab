#pragma once

#include <binder/Binder.h>
#include <utils/String16.h>

#include "control_commands.h"

namespace tivra_monitord {

// The Binder end of the control interface: unpacks a command, runs it and
// packs the result.
class ControlService : public android::BBinder {
public:
    explicit ControlService(ControlCommands& commands);

    const android::String16& getInterfaceDescriptor() const override;
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

private:
    ControlCommands& commands_;
    const android::String16 descriptor_;
};

}  // namespace tivra_monitord
