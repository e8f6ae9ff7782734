// The media-sharing download on a host: one libcurl easy transfer per request, on a thread of
// its own (detached: the request owns everything it touches, and the final callback is its
// last use of the caller's pointer). The body goes to a temporary file beside the destination,
// created exclusively (O_EXCL, mode 0600, so a link planted at a guessed name is never
// followed), flushed to the disk and renamed into place only once complete.
#include "asf_provider.h"

#include "qrb_scoped.h"
#include "qrb_temp_file.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

namespace {

// Limits on what a media server may make us do. A side file of chapter pictures is well under a
// megabyte; anything past this bound is not a file this service asks for.
constexpr curl_off_t kMaxBodyBytes = 64L * 1024 * 1024;
constexpr long kConnectTimeoutSec = 10;
// A server that sends less than one byte a second for this long is taken as gone.
constexpr long kStallTimeSec = 30;
constexpr long kMaxRedirects = 5;
constexpr int kDefaultProgressIntervalMs = 1000;

using ScopedCurl = QRBScoped<CURL, curl_easy_cleanup>;
using ScopedHeaders = QRBScoped<curl_slist, curl_slist_free_all>;

std::atomic<int> g_NextToken{1};

struct Job {
    int token = 0;
    std::string uri;
    std::string mimetype;
    std::string dlpath;
    int intervalMs = kDefaultProgressIntervalMs;
    asf_provider_download_cb callback = nullptr;
    void* user = nullptr;

    CURL* curl = nullptr;
    QRBTempFile* file = nullptr;
    long received = 0;
    long total = 0;
    bool tooLarge = false;
    bool reported = false;
    std::chrono::steady_clock::time_point lastReport;
};

long TotalOf(CURL* curl) {
    curl_off_t total = 0;
    if (curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &total) != CURLE_OK) return 0;
    return total > 0 ? static_cast<long>(total) : 0;
}

void Report(Job& job, int state) {
    asf_provider_download_status_s status;
    status.state = state;
    status.received = job.received;
    status.total = job.total;
    job.callback(job.token, &status, job.user);
}

size_t WriteBody(char* data, size_t size, size_t count, void* userdata) {
    Job& job = *static_cast<Job*>(userdata);
    const size_t bytes = size * count;
    if (static_cast<curl_off_t>(job.received) + static_cast<curl_off_t>(bytes) > kMaxBodyBytes) {
        job.tooLarge = true;
        return 0;  // aborts the transfer
    }
    if (bytes > 0 && !job.file->Write(data, bytes)) return 0;
    job.received += static_cast<long>(bytes);
    job.total = TotalOf(job.curl);
    const auto now = std::chrono::steady_clock::now();
    if (!job.reported || now - job.lastReport >= std::chrono::milliseconds(job.intervalMs)) {
        job.reported = true;
        job.lastReport = now;
        Report(job, ASF_PROVIDER_DOWNLOAD_PROGRESS);
    }
    return bytes;
}

// A value sent in a header must not be able to end it.
bool IsHeaderSafe(const std::string& value) {
    for (unsigned char c : value) {
        if (c < 0x20 || c == 0x7f) return false;
    }
    return true;
}

bool IsHttpUri(const char* uri) {
    std::string head(uri, strnlen(uri, 8));
    for (char& c : head) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return head.compare(0, 7, "http://") == 0 || head.compare(0, 8, "https://") == 0;
}

bool Transfer(Job& job) {
    QRBTempFile temp;  // removed unless renamed into place
    if (!temp.CreateBeside(job.dlpath)) return false;
    ScopedCurl curl(curl_easy_init());
    if (!curl) return false;
    job.curl = curl.get();
    job.file = &temp;

    ScopedHeaders headers;
    if (!job.mimetype.empty() && IsHeaderSafe(job.mimetype)) {
        headers.reset(curl_slist_append(nullptr, ("Accept: " + job.mimetype).c_str()));
    }
    CURL* h = curl.get();
    curl_easy_setopt(h, CURLOPT_URL, job.uri.c_str());
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(h, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(h, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSec);
    curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, kStallTimeSec);
    curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, kMaxBodyBytes);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &WriteBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, static_cast<void*>(&job));
    if (headers) curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());

    const CURLcode code = curl_easy_perform(h);
    job.file = nullptr;
    if (code != CURLE_OK || job.tooLarge) return false;
    return temp.Sync() && temp.RenameTo(job.dlpath);
}

void Run(std::unique_ptr<Job> job) {
    Report(*job, ASF_PROVIDER_DOWNLOAD_STARTED);
    const bool ok = Transfer(*job);
    job->curl = nullptr;  // released by Transfer
    Report(*job, ok ? ASF_PROVIDER_DOWNLOAD_COMPLETED : ASF_PROVIDER_DOWNLOAD_ERROR);
}

}  // namespace

extern "C" int asf_provider_download(const char* uri, const char* mimetype, const char* dlpath,
                                     int progress_interval_ms, asf_provider_download_cb callback,
                                     void* user_data, int* token) {
    if (uri == nullptr || dlpath == nullptr || *dlpath == '\0' || callback == nullptr ||
        token == nullptr || !IsHttpUri(uri)) {
        return -1;
    }
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    try {
        std::unique_ptr<Job> job(new Job);
        job->token = g_NextToken.fetch_add(1);
        job->uri = uri;
        job->mimetype = mimetype != nullptr ? mimetype : "";
        job->dlpath = dlpath;
        job->intervalMs =
            progress_interval_ms > 0 ? progress_interval_ms : kDefaultProgressIntervalMs;
        job->callback = callback;
        job->user = user_data;
        *token = job->token;
        std::thread(&Run, std::move(job)).detach();
        return 0;
    } catch (const std::exception&) {
        // No memory or no thread: the request is refused and gets no callback.
        return -1;
    }
}
