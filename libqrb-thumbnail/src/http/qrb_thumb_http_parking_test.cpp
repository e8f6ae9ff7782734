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

int g_userA;
int g_userB;

TEST(QRBThumbHttpParkingTest, KeysWithoutIdByUrlAndUserPointer) {
    CQRBThumbHttpParking parking;
    parking.Park(Key("http://h/a", -1, &g_userA), "bytes of a");
    parking.Park(Key("http://h/a", -1, &g_userB), "bytes of a for b");
    EXPECT_EQ(parking.Count(), 2);

    std::string out;
    EXPECT_FALSE(parking.Take(Key("http://h/other", -1, &g_userA), &out));
    EXPECT_TRUE(parking.Take(Key("http://h/a", -1, &g_userB), &out));
    EXPECT_EQ(out, "bytes of a for b");
    EXPECT_FALSE(parking.Take(Key("http://h/a", -1, &g_userB), &out)) << "taken bytes stay parked";
    EXPECT_TRUE(parking.Take(Key("http://h/a", -1, &g_userA), &out));
    EXPECT_EQ(out, "bytes of a");
    EXPECT_EQ(parking.Count(), 0);
}

TEST(QRBThumbHttpParkingTest, KeysWithIdByIdAndUserPointer) {
    CQRBThumbHttpParking parking;
    parking.Park(Key("http://h/icon", 7, nullptr), std::string("\0icon", 5));
    std::string out;
    // Same id, another URL: the same request as far as the list is concerned.
    EXPECT_TRUE(parking.Take(Key("http://h/moved", 7, nullptr), &out));
    EXPECT_EQ(out, std::string("\0icon", 5));
    parking.Park(Key("http://h/icon", 7, nullptr), "x");
    EXPECT_FALSE(parking.Take(Key("http://h/icon", 8, nullptr), &out));
    EXPECT_FALSE(parking.Take(Key("http://h/icon", -1, nullptr), &out));
    EXPECT_FALSE(parking.Take(Key("http://h/icon", 7, &g_userA), &out));
    EXPECT_EQ(parking.Count(), 1);
}

TEST(QRBThumbHttpParkingTest, ParkingTheSameKeyAgainReplacesItsBytes) {
    CQRBThumbHttpParking parking;
    parking.Park(Key("http://h/a", -1, nullptr), "old");
    parking.Park(Key("http://h/a", -1, nullptr), "newer");
    EXPECT_EQ(parking.Count(), 1);
    EXPECT_EQ(parking.TotalBytes(), 5);
    std::string out;
    ASSERT_TRUE(parking.Take(Key("http://h/a", -1, nullptr), &out));
    EXPECT_EQ(out, "newer");
}

TEST(QRBThumbHttpParkingTest, DropsByKeyUrlIdOrAll) {
    CQRBThumbHttpParking parking;
    parking.Park(Key("http://h/a", -1, &g_userA), "1");
    parking.Park(Key("http://h/a", -1, &g_userB), "22");
    parking.Park(Key("http://h/a", 5, nullptr), "333");
    parking.Park(Key("http://h/b", 5, &g_userA), "4444");
    parking.Park(Key("http://h/c", -1, nullptr), "55555");
    EXPECT_EQ(parking.Count(), 5);
    EXPECT_EQ(parking.TotalBytes(), 15);

    EXPECT_FALSE(parking.Drop(Key("http://h/zzz", -1, nullptr)));
    EXPECT_TRUE(parking.Drop(Key("http://h/c", -1, nullptr)));
    EXPECT_EQ(parking.Count(), 4);

    // By URL: every entry with that URL, whatever its id or user pointer.
    EXPECT_EQ(parking.DropURL("http://h/a"), 3);
    EXPECT_EQ(parking.Count(), 1);
    EXPECT_EQ(parking.DropURL("http://h/a"), 0);

    parking.Park(Key("http://h/d", 6, nullptr), "6");
    // By id: every entry with that id.
    EXPECT_EQ(parking.DropRID(5), 1);
    EXPECT_EQ(parking.Count(), 1);
    EXPECT_EQ(parking.DropRID(-1), 0);

    parking.Park(Key("http://h/e", -1, nullptr), "7");
    parking.Clear();
    EXPECT_EQ(parking.Count(), 0);
    EXPECT_EQ(parking.TotalBytes(), 0);
}

}  // namespace
