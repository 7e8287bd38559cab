#include <binder/Parcel.h>
#include <gtest/gtest.h>

TEST(ParcelSmoke, Int32RoundTrip) {
    android::Parcel parcel;
    ASSERT_EQ(parcel.writeInt32(7), android::OK);
    parcel.setDataPosition(0);
    EXPECT_EQ(parcel.readInt32(), 7);
}
