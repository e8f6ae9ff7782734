#include "qrb_thumb_http_parking.h"

#include <gtest/gtest.h>

#include <string>

namespace {

_stRequestedItem Key(const std::string& url, long long rid, void* user) {
    _stRequestedItem item;
    item.strURL = url;
    item.RID = rid;
    item.user_data = user;
    return item;
}

int g_user;

// Parked bytes are keyed as the request list keys requests: without an id by URL and user
// pointer, with one by id and user pointer; parking a key again replaces its bytes, and taking
// them unparks them. (Dropping on cancel: QRBThumbHttpVariantTest.)
TEST(QRBThumbHttpParkingTest, BytesAreKeyedAsTheRequestListKeysRequests) {
    CQRBThumbHttpParking parking;
    parking.Park(Key("http://h/a", -1, nullptr), "old");
    parking.Park(Key("http://h/a", -1, nullptr), "a");
    parking.Park(Key("http://h/a", -1, &g_user), "a for the user");
    parking.Park(Key("http://h/icon", 7, nullptr), std::string("\0icon", 5));
    EXPECT_EQ(parking.Count(), 3);
    EXPECT_EQ(parking.TotalBytes(), 1 + 14 + 5);
    std::string out;
    EXPECT_FALSE(parking.Take(Key("http://h/other", -1, nullptr), &out));
    EXPECT_FALSE(parking.Take(Key("http://h/icon", 8, nullptr), &out));
    EXPECT_FALSE(parking.Take(Key("http://h/icon", 7, &g_user), &out));
    ASSERT_TRUE(parking.Take(Key("http://h/moved", 7, nullptr), &out));  // the id decides
    EXPECT_EQ(out, std::string("\0icon", 5));
    ASSERT_TRUE(parking.Take(Key("http://h/a", -1, &g_user), &out));
    EXPECT_EQ(out, "a for the user");
    ASSERT_TRUE(parking.Take(Key("http://h/a", -1, nullptr), &out));
    EXPECT_EQ(out, "a");
    EXPECT_FALSE(parking.Take(Key("http://h/a", -1, nullptr), &out)) << "taken bytes stay parked";
    EXPECT_EQ(parking.TotalBytes(), 0);
}

}  // namespace
