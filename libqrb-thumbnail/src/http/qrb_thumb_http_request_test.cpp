#include "qrb_thumb_http_request.h"

#include "qrb_test_log.h"
#include "qrb_test_root.h"

#include <gtest/gtest.h>

#include <curl/curl.h>

#include <string>

namespace {

_stRequestedItem MakeItem(const std::string& url) {
    _stRequestedItem item;
    item.strURL = url;
    item.RID = 42;
    item.eThumbnailType = THUMB_SNS;
    item.nOrientation = 3;
    item.width = 160;
    item.height = 90;
    item.state = ITEM_DOWNLOADING;
    item.bUsedCache = false;
    item.FrameCount = 2;
    item.user_data = &item;
    item.bRequestBuffer = true;
    return item;
}

// The write callback takes size x nmemb bytes; it tests the 5 MiB cap before appending, so at
// exactly 5 MiB one more chunk still goes in and above it none.
TEST(QRBThumbHttpRequestTest, ReceiveAppendsWholeChunksUntilPastTheFiveMiBCap) {
    std::string buffer = "ab";
    const char data[] = {'c', '\0', 'd', 'e'};
    EXPECT_EQ(CQRBThumbHttpRequest::receive(data, 2, 2, &buffer), 4u);
    EXPECT_EQ(buffer, std::string("abc\0de", 6));
    EXPECT_EQ(CQRBThumbHttpRequest::receive(nullptr, 1, 4, &buffer), 0u);
    EXPECT_EQ(CQRBThumbHttpRequest::receive("abcd", 1, 4, nullptr), 0u);
    const std::string chunk(16384, 'z');
    std::string atCap(5242880, 'a');
    EXPECT_EQ(CQRBThumbHttpRequest::receive(chunk.data(), 1, chunk.size(), &atCap), chunk.size());
    EXPECT_EQ(CQRBThumbHttpRequest::receive(chunk.data(), 1, chunk.size(), &atCap), 0u);
    EXPECT_EQ(atCap.size(), 5242880u + 16384u);
}

TEST(QRBThumbHttpRequestTest, InitCopiesTheRequestAndPointsTheHandleBack) {
    qrbtest::LogCapture log;
    _stRequestedItem item = MakeItem("http://127.0.0.1:9/pic.jpg");
    CQRBThumbHttpRequest request;
    ASSERT_TRUE(request.Init(item));
    ASSERT_NE(request.GetCurlHandle(), nullptr);

    const _stRequestedItem copy = request.GetRequestItem();
    EXPECT_EQ(copy.strURL, item.strURL);
    EXPECT_EQ(copy.RID, 42);
    EXPECT_EQ(copy.eThumbnailType, THUMB_SNS);
    EXPECT_EQ(copy.nOrientation, 3);
    EXPECT_EQ(copy.width, 160);
    EXPECT_EQ(copy.height, 90);
    EXPECT_EQ(copy.FrameCount, 2);
    EXPECT_EQ(copy.user_data, item.user_data);
    EXPECT_TRUE(copy.bRequestBuffer);

    char* priv = nullptr;
    ASSERT_EQ(curl_easy_getinfo(request.GetCurlHandle(), CURLINFO_PRIVATE, &priv), CURLE_OK);
    EXPECT_EQ(reinterpret_cast<CQRBThumbHttpRequest*>(priv), &request);
    EXPECT_TRUE(log.Contains("============start strURL = http://127.0.0.1:9/pic.jpg tick = "));
}

TEST(QRBThumbHttpRequestTest, HttpsIsRecognisedAnywhereInTheUrl) {
    struct Case {
        const char* url;
        bool https;
    } cases[] = {
        {"https://127.0.0.1/pic.jpg", true},
        {"http://127.0.0.1/next?to=https://example.invalid/pic.jpg", true},
        {"http://127.0.0.1/pic.jpg", false},
        {"HTTPS://127.0.0.1/pic.jpg", false},  // the test is an exact substring search
        {"http://127.0.0.1/https:/pic.jpg", false},
    };
    for (const Case& c : cases) {
        qrbtest::LogCapture log;
        _stRequestedItem item = MakeItem(c.url);
        CQRBThumbHttpRequest request;
        ASSERT_TRUE(request.Init(item));
        EXPECT_EQ(log.Contains("It is https,NEED verifies the peer's certificate."), c.https)
            << c.url;
        EXPECT_EQ(log.Contains("It is NOT https,NOT verifies certificate."), !c.https) << c.url;
    }
}

}  // namespace
