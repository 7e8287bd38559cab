#include "i_device_change_listener.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {

TIVRA_FRAME_DEFINE_INTERFACE(DeviceChangeListener, kDeviceChangeListenerDescriptor,
                             TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS)

}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
