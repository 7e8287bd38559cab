#include "i_device_monitor_service.h"

namespace com {
namespace solvane {
namespace pravik {
namespace service {

TIVRA_FRAME_DEFINE_INTERFACE(DeviceMonitorService, kDeviceMonitorServiceDescriptor,
                             TIVRA_DEVICE_MONITOR_SERVICE_TRANSACTIONS)

}  // namespace service
}  // namespace pravik
}  // namespace solvane
}  // namespace com
