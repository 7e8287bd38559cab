#include "i_device_change_listener.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {

TIVRA_FRAME_DEFINE_INTERFACE(DeviceChangeListener, "com.solvane.pravik.service.IDeviceChangeListener",
                             TIVRA_DEVICE_CHANGE_LISTENER_TRANSACTIONS)

}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
