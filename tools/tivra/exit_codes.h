#pragma once

namespace tivra_cli {

// What `tivra` exits with, so that scripts can tell failures apart; binderd
// and tivra-monitord keep the same scheme.
enum ExitCode : int {
    kExitOk = 0,
    kExitCallFailed = 1,          // an operation failed: the service answered with a failure
    kExitUsage = 2,               // bad command line
    kExitServiceUnavailable = 3,  // binderd or the device monitor service is not there
};

}  // namespace tivra_cli
