#include "i_device_listener.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {

TIVRA_FRAME_DEFINE_INTERFACE(DeviceListener, kDeviceListenerDescriptor,
                             TIVRA_DEVICE_LISTENER_TRANSACTIONS)

}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
