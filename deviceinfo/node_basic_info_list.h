#pragma once

#include <list>

#include <binder/Parcel.h>
#include <binder/Parcelable.h>

#include "node_basic_info_inner.h"

namespace com {
namespace solvane {
namespace pravik {
namespace deviceinfo {

// An ordered list of nodes, as the service answers the query for all remote
// nodes. Order is kept across the parcel and duplicates are never merged.
class NodeBasicInfoList : public android::Parcelable {
public:
    NodeBasicInfoList() = default;
    ~NodeBasicInfoList() override = default;

    android::status_t writeToParcel(android::Parcel* parcel) const override;
    android::status_t readFromParcel(const android::Parcel* parcel) override;

    std::list<NodeBasicInfoInner> GetNodeBasicInfoList() const;
    // Appends one copy at the end; how a serving process fills its reply.
    void AddNodeBasicInfoToList(const NodeBasicInfoInner& info);

private:
    std::list<NodeBasicInfoInner> nodeBasicInfoList_;
};

}  // namespace deviceinfo
}  // namespace pravik
}  // namespace solvane
}  // namespace com
