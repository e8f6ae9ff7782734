// qrb-thumb: asks the thumbnail library for every input at once, writes what comes back as
// PNG files and reports on each input. It uses the library only through its public C header
// (and the platform log's threshold, to keep the library quiet unless -v is given).
#include "contact_sheet.h"
#include "dlog_sink.h"
#include "media_kind.h"
#include "options.h"
#include "progress.h"
#include "qrb_thumbnail.h"
#include "report.h"
#include "request_batch.h"
#include "result_files.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

using namespace qrbthumb;

namespace {

// The platform log's value that silences stderr entirely (3 debug ... 6 error).
constexpr int kLogSilent = 7;

// The library's lifetime within one run: thumbnail_finalize runs on every path out, and
// before the batch that answers may still reach is destroyed.
class ServiceSession {
public:
    ServiceSession() : m_Started(thumbnail_init() == 0) {}
    ~ServiceSession() { End(); }
    ServiceSession(const ServiceSession&) = delete;
    ServiceSession& operator=(const ServiceSession&) = delete;

    bool Started() const { return m_Started; }
    // Whatever is still queued is dropped without answers; what is being worked on finishes
    // while the service shuts down.
    void End() {
        if (m_Ended) return;
        m_Ended = true;
        thumbnail_request_cancel_all();
        thumbnail_finalize();
    }

private:
    bool m_Started;
    bool m_Ended = false;
};

int Run(const ToolOptions& options) {
    std::error_code ec;
    std::filesystem::create_directories(options.outDir, ec);
    if (ec) {
        std::cerr << "qrb-thumb: cannot create " << options.outDir << ": " << ec.message() << "\n";
        return kExitFailed;
    }

    const size_t n = options.inputs.size();
    std::vector<Outcome> outcomes(n);
    std::vector<MediaKind> kinds(n);
    for (size_t i = 0; i < n; ++i) {
        const std::string& input = options.inputs[i];
        const std::string local = LocalPathOf(input);
        kinds[i] = options.kind != MediaKind::Unknown
                       ? options.kind
                       : GuessKind(input, local.empty() ? std::string() : ReadHead(local));
        const Route route = RouteOf(kinds[i]);
        outcomes[i].input = input;
        outcomes[i].kind = KindName(kinds[i]);
        outcomes[i].media = route.media;
        outcomes[i].device = route.dev;
    }

    // Declared before the service starts: late answers during thumbnail_finalize land here.
    RequestBatch batch(n);
    ServiceSession service;
    if (!service.Started()) {
        std::cerr << "qrb-thumb: the thumbnail service could not start\n";
        return kExitFailed;
    }
    RequestParams params;
    params.width = options.width;
    params.height = options.height;
    params.frames = options.frames;
    params.useCache = options.useCache;
    params.encoded = options.encoded;
    size_t posted = 0;
    for (size_t i = 0; i < n; ++i) {
        if (kinds[i] == MediaKind::Unknown) continue;
        batch.Post(i, options.inputs[i], RouteOf(kinds[i]), params);
        ++posted;
    }

    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(options.timeoutSeconds));
    {
        ProgressLine progress(stderr, isatty(STDERR_FILENO) == 1, posted);
        batch.Wait(deadline,
                   [&](size_t answered, size_t failed) { progress.Show(answered, failed); });
    }
    batch.Close();
    service.End();

    // Encoding PNG files costs more than making the thumbnails they hold: one writer per
    // processor, each taking the next answer.
    const std::vector<std::string> stems = UniqueStems(options.inputs);
    std::atomic<size_t> next{0};
    auto writeAnswers = [&] {
        for (size_t i = next++; i < n; i = next++) {
            Outcome& outcome = outcomes[i];
            if (kinds[i] == MediaKind::Unknown) {
                outcome.note = "cannot tell what kind of media this is (name it with -k)";
                continue;
            }
            Answer answer = batch.Take(i);
            // A DLNA item's chapter pictures arrive as the server's JPEG bytes.
            if (kinds[i] == MediaKind::Dlna) answer.encoded = true;
            WriteAnswerFiles(answer, options.outDir, stems[i], &outcome);
            const std::string local = LocalPathOf(outcome.input);
            if (!outcome.ok && !local.empty() && access(local.c_str(), F_OK) != 0) {
                outcome.note = "no such file";
            }
        }
    };
    std::vector<std::thread> writers;
    const size_t wanted = std::min<size_t>(n, std::max(1u, std::thread::hardware_concurrency()));
    for (size_t t = 1; t < wanted; ++t) writers.emplace_back(writeAnswers);
    writeAnswers();
    for (auto& writer : writers) writer.join();
    bool allOk = true;
    for (const Outcome& outcome : outcomes) allOk = allOk && outcome.ok;

    if (options.json) {
        std::cout << FormatJson(outcomes) << "\n";
    } else {
        for (const auto& outcome : outcomes) std::cout << FormatLine(outcome) << "\n";
    }
    std::cout.flush();
    if (!options.sheetPath.empty()) {
        std::string error;
        if (WriteContactSheet(outcomes, options.sheetPath, &error)) {
            std::cerr << "qrb-thumb: contact sheet " << options.sheetPath << "\n";
        } else {
            std::cerr << "qrb-thumb: " << error << "\n";
            allOk = false;
        }
    }
    std::cerr << "qrb-thumb: " << FormatSummary(outcomes) << "\n";
    return allOk ? kExitOk : kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
    ToolOptions options;
    const int code = ParseOptions(argc, argv, &options, std::cout, std::cerr);
    if (code >= 0) return code;
    if (!options.verbose) dlog_set_stderr_level(kLogSilent);
    try {
        return Run(options);
    } catch (const std::exception& e) {
        std::cerr << "qrb-thumb: " << e.what() << "\n";
    }
    return kExitFailed;
}
