// The soak: requests of every local kind and of web pictures from a server on 127.0.0.1, mixed
// with cancels, cancel-all, queue stops and finalize / init cycles, for a given time. An oracle
// counts the callbacks of every request: exactly one unless the request was cancelled or
// cleared (then at most one, and none once finalize has returned). At a checkpoint after the
// first stretch and at the end the service is drained, finalized and started again, and the
// process's open files, threads, files left in the library's folders and resident memory are
// compared: they must be the same at the end as at the first checkpoint.
//
//   qrb-soak --media DIR --plugins DIR [--seconds N] [--seed N] [--rss-slack-mib N]
//
// DIR holds sample media (scripts/make-media.sh makes them); the kind of each file is guessed
// as qrb-thumb guesses it. Exit 0 when every check held, 1 otherwise, 2 on a usage error.
#include "media_kind.h"
#include "qrb_test_http_server.h"
#include "qrb_thumbnail.h"

#include "qrb_test_files.h"
#include "qrb_test_root.h"

#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Item {
    std::string url;
    qrb_item_media_type media;
    qrb_extend_dev_type dev;
    bool web;  // the buffer form is asked for now and then
};

// One posted request, as the oracle sees it.
struct Ticket {
    size_t item;
    int calls = 0;
    bool excused = false;  // cancelled or cleared: no callback is owed
};

class Oracle {
public:
    // A fresh user pointer for a request of item.
    void* Post(size_t item) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        const intptr_t id = ++m_Next;
        m_Tickets[id] = Ticket{item};
        ++m_Posted;
        return reinterpret_cast<void*>(id);
    }
    static int Callback(int status, _thumb_result* result, void* user) {
        return Get().m_Answer(status, result, reinterpret_cast<intptr_t>(user));
    }
    // Marks every open request that matches as no longer owed a callback.
    template <typename Match>
    void Excuse(Match match) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        for (auto& [id, ticket] : m_Tickets) {
            if (ticket.calls == 0 && match(ticket.item)) ticket.excused = true;
        }
    }
    // Requests still owed a callback.
    size_t Owed() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        size_t owed = 0;
        for (const auto& [id, ticket] : m_Tickets) owed += ticket.calls == 0 && !ticket.excused;
        return owed;
    }
    bool WaitUntilFewerOwed(size_t limit, std::chrono::seconds timeout) {
        const auto until = Clock::now() + timeout;
        while (Owed() >= limit) {
            if (Clock::now() > until) return false;
            std::this_thread::sleep_for(5ms);
        }
        return true;
    }
    // After finalize has returned: no callback may come for any request posted so far.
    void Sealed() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        for (auto& [id, ticket] : m_Tickets) {
            if (ticket.calls == 0) ticket.excused = true;
        }
        m_SealedUpTo = m_Next;
    }
    void Fail(const std::string& why) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Fail(why);
    }
    void Report(std::ostream& out) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        size_t excused = 0;
        for (const auto& [id, ticket] : m_Tickets) excused += ticket.excused && ticket.calls == 0;
        out << "soak: " << m_Posted << " requests, " << m_Answered << " callbacks (" << m_Failed
            << " with status -1), " << excused << " cancelled or cleared, " << m_Failures
            << " failed checks\n";
    }
    bool Clean() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Failures == 0;
    }
    static Oracle& Get() {
        static Oracle oracle;
        return oracle;
    }

private:
    int m_Answer(int status, _thumb_result* result, intptr_t id) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        auto it = m_Tickets.find(id);
        if (it == m_Tickets.end()) {
            m_Fail("a callback for a request never posted");
        } else if (++it->second.calls > 1) {
            m_Fail("a second callback for " + std::string(result->szURL));
        } else if (id <= m_SealedUpTo) {
            m_Fail("a callback after finalize returned, for " + std::string(result->szURL));
        }
        ++m_Answered;
        m_Failed += status != 0;
        if (status == 0 && result->bBuffer == 0 && result->count > 0 &&
            (result->width <= 0 || result->height <= 0 ||
             result->nBufSize[0] < 4 * result->width * result->height)) {
            m_Fail("an image whose buffer is smaller than its size, for " +
                   std::string(result->szURL));
        }
        for (unsigned char* buffer : result->pBuffer) std::free(buffer);
        std::free(result->buffer_preset);
        return 0;
    }
    void m_Fail(const std::string& why) {
        if (++m_Failures <= 20) std::cerr << "soak: FAILED: " << why << "\n";
    }

    std::mutex m_Mutex;
    std::map<intptr_t, Ticket> m_Tickets;
    intptr_t m_Next = 0;
    intptr_t m_SealedUpTo = 0;
    size_t m_Posted = 0;
    size_t m_Answered = 0;
    size_t m_Failed = 0;
    size_t m_Failures = 0;
};

// What must be the same at the end as at the first checkpoint.
struct Resources {
    int files = 0;
    int threads = 0;
    int leftovers = 0;  // regular files in the library's folders
    long rssKiB = 0;
};

long ResidentKiB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int RegularFilesUnder(const fs::path& root, const fs::path& skip) {
    int n = 0;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->path() == skip) {
            it.disable_recursion_pending();
        } else if (it->is_regular_file(ec)) {
            ++n;
        }
    }
    return n;
}

struct Options {
    std::string media;
    std::string plugins;
    int seconds = 600;
    unsigned seed = 1;
    long rssSlackMiB = 32;
};

bool ParseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const char* value = argv[i + 1];
        if (name == "--media") o->media = value;
        else if (name == "--plugins") o->plugins = value;
        else if (name == "--seconds") o->seconds = std::atoi(value);
        else if (name == "--seed") o->seed = static_cast<unsigned>(std::atoi(value));
        else if (name == "--rss-slack-mib") o->rssSlackMiB = std::atol(value);
        else return false;
    }
    return argc % 2 == 1 && !o->media.empty() && !o->plugins.empty() && o->seconds > 0;
}

// The media folder's files by their guessed kind, the missing and damaged forms of each kind,
// and the server's pictures (whole, slow, missing) as web items.
std::vector<Item> Items(const Options& o, const qrbtest::LoopbackHttpServer& server,
                        const fs::path& scratch) {
    using namespace qrbthumb;
    std::vector<Item> items;
    std::map<MediaKind, bool> damaged;
    for (const auto& entry : fs::directory_iterator(o.media)) {
        const std::string path = entry.path().string();
        const MediaKind kind = GuessKind(path, ReadHead(path));
        if (kind == MediaKind::Unknown) continue;
        const Route route = RouteOf(kind);
        items.push_back({path, route.media, route.dev, false});
        if (!damaged[kind]) {
            // A copy cut after a third of its bytes, and a name that is not there.
            damaged[kind] = true;
            const fs::path cut = scratch / ("cut-" + entry.path().filename().string());
            fs::copy_file(entry.path(), cut, fs::copy_options::overwrite_existing);
            fs::resize_file(cut, fs::file_size(cut) / 3);
            items.push_back({cut.string(), route.media, route.dev, false});
            items.push_back({path + ".missing", route.media, route.dev, false});
        }
    }
    const Route web = RouteOf(MediaKind::Web);
    for (const char* path : {"/picture.png", "/slow/picture.png", "/missing.png"}) {
        items.push_back({server.Url(path), web.media, web.dev, true});
    }
    return items;
}

class Soak {
public:
    Soak(const Options& o, std::vector<Item> items, fs::path root)
        : m_Options(o), m_Items(std::move(items)), m_Root(std::move(root)), m_Random(o.seed) {}

    bool Run() {
        if (thumbnail_init() != 0) {
            std::cerr << "soak: thumbnail_init failed\n";
            return false;
        }
        // Every item once first, in every size, so that what the libraries set up on first use
        // (codec tables, decoders' pools) is there before anything is measured.
        for (size_t i = 0; i < m_Items.size(); ++i) {
            for (int side = 1; side <= 4; ++side) m_Post(i, side, side);
        }
        const auto start = Clock::now();
        const auto end = start + std::chrono::seconds(m_Options.seconds);
        // The first checkpoint: after a minute, or a quarter of a shorter run.
        const auto first = start + std::min(60s, std::chrono::seconds(m_Options.seconds / 4));
        bool checked = false;
        Resources before;
        while (Clock::now() < end) {
            if (!checked && Clock::now() >= first) {
                before = m_Checkpoint();
                checked = true;
            }
            m_Step();
        }
        const Resources after = m_Checkpoint();
        thumbnail_finalize();
        m_Compare(before, after);
        return true;
    }

private:
    void m_Step() {
        std::uniform_int_distribution<int> percent(0, 999);
        const int roll = percent(m_Random);
        if (roll < 30) {
            const Item& item = m_Items[m_Pick()];
            thumbnail_request_cancel(item.url.c_str(), item.media, item.dev);
            Oracle::Get().Excuse([&](size_t i) { return m_Items[i].url == item.url; });
        } else if (roll < 33) {
            Oracle::Get().Excuse([](size_t) { return true; });
            thumbnail_request_cancel_all();
        } else if (roll < 35) {
            // The one-at-a-time queue (videos, recordings) is dropped.
            Oracle::Get().Excuse([&](size_t i) {
                return m_Items[i].media == MEDIA_TYPE_VIDEO || m_Items[i].media == MEDIA_TYPE_PVR;
            });
            thumbnail_stop_ptp_decode_sync();
        } else if (roll < 37) {
            thumbnail_finalize();
            Oracle::Get().Sealed();
            if (thumbnail_init() != 0) Oracle::Get().Fail("thumbnail_init failed after finalize");
        } else {
            m_Post();
        }
    }

    size_t m_Pick() {
        return std::uniform_int_distribution<size_t>(0, m_Items.size() - 1)(m_Random);
    }

    void m_Post() {
        std::uniform_int_distribution<int> side(1, 4);
        const size_t index = m_Pick();
        const int across = side(m_Random);
        m_Post(index, across, side(m_Random));
    }

    // A request for item at 80 x across by 60 x down, now and then from the cache, with 1 to 4
    // frames, and for a web item now and then in the buffer form.
    void m_Post(size_t index, int across, int down) {
        // The application keeps at most 48 requests waiting, as a grid of thumbnails would.
        if (!Oracle::Get().WaitUntilFewerOwed(48, 120s)) {
            Oracle::Get().Fail("48 requests unanswered for two minutes");
            Oracle::Get().Excuse([](size_t) { return true; });
        }
        const Item& item = m_Items[index];
        std::uniform_int_distribution<int> side(1, 4);
        const int width = 80 * across;
        const int height = 60 * down;
        const int cache = side(m_Random) == 1;
        const unsigned char frames = static_cast<unsigned char>(side(m_Random));
        void* user = Oracle::Get().Post(index);
        if (item.web && side(m_Random) == 1) {
            thumbnail_request_http_buffer_async(item.url.c_str(), item.media, item.dev, 0, width,
                                                height, cache, frames, &Oracle::Callback, user);
        } else {
            thumbnail_request_async(item.url.c_str(), item.media, item.dev, 0, width, height,
                                    cache, frames, &Oracle::Callback, user);
        }
    }

    // Drains the queues, restarts the service (which ends its idle connections and empties its
    // scratch folders) and measures the process.
    Resources m_Checkpoint() {
        if (!Oracle::Get().WaitUntilFewerOwed(1, 120s)) {
            Oracle::Get().Fail("requests unanswered for two minutes at a checkpoint");
        }
        thumbnail_finalize();
        Oracle::Get().Sealed();
        if (thumbnail_init() != 0) Oracle::Get().Fail("thumbnail_init failed at a checkpoint");
        // Closed connections leave the server's side a moment later (a slow answer is still
        // being written): the counts are taken once they have held for a second. Memory that
        // malloc keeps for reuse is handed back first, so that what is resident is what is held.
        malloc_trim(0);
        Resources r;
        int steady = 0;
        for (int i = 0; i < 100 && steady < 10; ++i) {
            std::this_thread::sleep_for(100ms);
            const Resources last = r;
            r = Resources{qrbtest::OpenFileDescriptors(), qrbtest::ThreadCount(),
                          RegularFilesUnder(m_Root, m_Root / "usr"), ResidentKiB()};
            steady = r.files == last.files && r.threads == last.threads ? steady + 1 : 0;
        }
        std::cerr << "soak: checkpoint: " << r.files << " open files, " << r.threads
                  << " threads, " << r.leftovers << " files left, " << r.rssKiB / 1024
                  << " MiB resident\n";
        return r;
    }

    void m_Compare(const Resources& a, const Resources& b) {
        Oracle& oracle = Oracle::Get();
        if (b.files != a.files) oracle.Fail("open files " + Change(a.files, b.files));
        if (b.threads != a.threads) oracle.Fail("threads " + Change(a.threads, b.threads));
        if (b.leftovers != 0 || a.leftovers != 0) {
            oracle.Fail("files left in the library's folders " + Change(a.leftovers, b.leftovers));
        }
        if (b.rssKiB > a.rssKiB + m_Options.rssSlackMiB * 1024) {
            oracle.Fail("resident memory grew by more than " +
                        std::to_string(m_Options.rssSlackMiB) + " MiB " +
                        Change(a.rssKiB / 1024, b.rssKiB / 1024));
        }
    }

    static std::string Change(long a, long b) {
        return "from " + std::to_string(a) + " to " + std::to_string(b);
    }

    Options m_Options;
    std::vector<Item> m_Items;
    fs::path m_Root;
    std::mt19937 m_Random;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        std::cerr << "usage: qrb-soak --media DIR --plugins DIR [--seconds N] [--seed N] "
                     "[--rss-slack-mib N]\n";
        return 2;
    }
    // The library's fixed folders land in a root of the soak's own, with the media plug-ins.
    qrbtest::ScratchRoot root;
    const fs::path plugins = fs::path(root.Path()) / "usr/lib/gstreamer-1.0";
    fs::create_directories(plugins);
    for (const char* name : {"libgstffmpeg.so", "libgstffmpegscale.so"}) {
        fs::copy_file(fs::path(options.plugins) / name, plugins / name);
    }
    const fs::path scratch = fs::temp_directory_path() / ("qrb-soak-" + std::to_string(getpid()));
    fs::create_directories(scratch);

    const std::string picture = qrbtest::ReadFileBytes(options.media + "/picture.png");
    qrbtest::LoopbackHttpServer server;
    server.Http().Get("/picture.png", [&](const httplib::Request&, httplib::Response& res) {
        res.set_content(picture, "image/png");
    });
    server.Http().Get("/slow/picture.png", [&](const httplib::Request&, httplib::Response& res) {
        std::this_thread::sleep_for(300ms);
        res.set_content(picture, "image/png");
    });
    if (!server.Start()) {
        std::cerr << "soak: the web server did not start\n";
        return 1;
    }
    const std::vector<Item> items = Items(options, server, scratch);
    std::cerr << "soak: " << items.size() << " items, " << options.seconds << " s, seed "
              << options.seed << "\n";
    Soak soak(options, items, root.Path());
    const bool ran = soak.Run();
    server.Stop();
    fs::remove_all(scratch);
    Oracle::Get().Report(std::cerr);
    return ran && Oracle::Get().Clean() ? 0 : 1;
}
