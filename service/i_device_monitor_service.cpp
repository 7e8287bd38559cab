#include "i_device_monitor_service.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {

TIVRA_FRAME_DEFINE_INTERFACE(DeviceMonitorService, "com.solvane.pravik.service.IDeviceMonitorService",
                             TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS)

}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
