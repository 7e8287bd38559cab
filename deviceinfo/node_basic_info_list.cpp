#include "node_basic_info_list.h"

#include "typed_list_parcel.h"

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {
namespace {

// The largest element count the list holds on the 32-bit target.
constexpr int32_t kMaxNodeCount = 97612893;

// Presence flag, empty name, type code, empty node id.
constexpr size_t kMinNodeEntryBytes = 4 + 8 + 4 + 8;

const TypedListMessages kNodeListMessages = {
    "node basic info list",
    "write node basic info list size to parcel failed, size = %u",
    "write one node basic info to parcel failed",
    "read node basic info list size from parcel failed, size = %d",
    "read parcel node basic info list size = %d",
    "read node basic info list size is oversize",
    "read one node basic info from parcel failed",
};

}  // namespace

android::status_t NodeBasicInfoList::writeToParcel(android::Parcel* parcel) const {
    return WriteTypedList(parcel, nodeBasicInfoList_, kNodeListMessages);
}

android::status_t NodeBasicInfoList::readFromParcel(const android::Parcel* parcel) {
    return ReadTypedList(parcel, &nodeBasicInfoList_, kMaxNodeCount, kMinNodeEntryBytes, kNodeListMessages);
}

std::list<NodeBasicInfoInner> NodeBasicInfoList::GetNodeBasicInfoList() const { return nodeBasicInfoList_; }

void NodeBasicInfoList::AddNodeBasicInfoToList(const NodeBasicInfoInner& info) {
    nodeBasicInfoList_.push_back(info);
}

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
