// qrb-thumb: asks the thumbnail library for its inputs, writes what comes back as image files
// as it arrives, and reports on each input; or, in the desktop thumbnailer mode, makes the one
// thumbnail a file manager asked for. It uses the library only through its public C header
// (and the platform log's threshold, to keep the library quiet unless -v is given).
#include "batch_run.h"
#include "contact_sheet.h"
#include "dlog_sink.h"
#include "fit_scale.h"
#include "image_writer.h"
#include "media_kind.h"
#include "options.h"
#include "progress.h"
#include "qrb_thumbnail.h"
#include "report.h"
#include "request_batch.h"
#include "result_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>
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

// Runs the requests through the library; consume sees every requested input once. The batch
// is declared before the service: late answers during thumbnail_finalize land in it.
bool Serve(const std::vector<BatchInput>& requests, size_t slots, const BatchSettings& settings,
           size_t total, const ConsumeFn& consume) {
    RequestBatch batch(slots);
    ServiceSession service;
    if (!service.Started()) {
        std::cerr << "qrb-thumb: the thumbnail service could not start\n";
        return false;
    }
    ProgressLine progress(stderr, isatty(STDERR_FILENO) == 1, total);
    RunBatch(batch, requests, settings, consume,
             [&](size_t done, size_t failed) { progress.Show(done, failed); });
    progress.Finish();
    batch.Close();
    service.End();
    return true;
}

int RunBatchMode(const ToolOptions& options) {
    std::error_code ec;
    std::filesystem::create_directories(options.outDir, ec);
    if (ec) {
        std::cerr << "qrb-thumb: cannot create " << options.outDir << ": " << ec.message() << "\n";
        return kExitFailed;
    }

    const size_t n = options.inputs.size();
    std::vector<Outcome> outcomes(n);
    std::vector<MediaKind> kinds(n);
    std::vector<BatchInput> requests;
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
        if (kinds[i] == MediaKind::Unknown) {
            outcomes[i].note = "cannot tell what kind of media this is (name it with -k)";
        } else {
            requests.push_back(BatchInput{i, input, route});
        }
    }

    BatchSettings settings;
    settings.timeout = std::chrono::duration<double>(options.timeoutSeconds);
    settings.params.width = options.width;
    settings.params.height = options.height;
    settings.params.frames = options.frames;
    settings.params.useCache = options.useCache;
    settings.params.encoded = options.encoded;
    const std::vector<std::string> stems = UniqueStems(options.inputs);
    const bool served =
        Serve(requests, n, settings, requests.size(), [&](size_t i, Answer answer) {
            // A DLNA item's chapter pictures arrive as the server's JPEG bytes.
            if (kinds[i] == MediaKind::Dlna) answer.encoded = true;
            WriteAnswerFiles(answer, options.format, options.outDir, stems[i], &outcomes[i]);
            return outcomes[i].ok;
        });
    if (!served) return kExitFailed;

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

// The desktop thumbnailer contract: one item's URI in, one PNG out that keeps the item's aspect
// ratio inside SIZE x SIZE and names its source (Thumb::URI, Thumb::MTime) so that the file
// manager can tell when it is stale; a non-zero exit on any failure.
int RunThumbnailerMode(const ToolOptions& options) {
    const std::string& uri = options.inputs[0];
    const std::string& output = options.inputs[1];
    const std::string path = PathOfUri(uri);
    struct stat st;
    if (path.empty() || stat(path.c_str(), &st) != 0) {
        std::cerr << "qrb-thumb: " << uri << ": not a local file that can be read\n";
        return kExitFailed;
    }
    const MediaKind kind = options.kind != MediaKind::Unknown ? options.kind
                                                              : GuessKind(path, ReadHead(path));
    if (kind == MediaKind::Unknown) {
        std::cerr << "qrb-thumb: " << uri << ": not a kind of media it reads\n";
        return kExitFailed;
    }
    // The item's own size: only the whole picture tells its aspect ratio.
    BatchSettings settings;
    settings.timeout = std::chrono::duration<double>(options.timeoutSeconds);
    settings.params.frames = 1;
    bool written = false;
    const bool served =
        Serve({BatchInput{0, path, RouteOf(kind)}}, 1, settings, 1, [&](size_t, Answer answer) {
            std::string error = !answer.reason.empty() ? answer.reason : "no thumbnail";
            if (answer.status == 0 && !answer.encoded && !answer.images.empty()) {
                const DeliveredImage& image = answer.images.front();
                const size_t expected = static_cast<size_t>(answer.width) * answer.height * 4;
                const Raster fitted =
                    image.size == expected
                        ? FitInside(image.bytes.get(), answer.width, answer.height,
                                    options.thumbnailerSize)
                        : Raster();
                written = !fitted.pixels.empty() &&
                          WriteBgraImage(output, ImageFormat::Png, fitted.pixels.data(),
                                         fitted.pixels.size(), fitted.width, fitted.height,
                                         {{"Thumb::URI", uri},
                                          {"Thumb::MTime", std::to_string(st.st_mtime)}},
                                         &error);
            }
            if (!written) std::cerr << "qrb-thumb: " << uri << ": " << error << "\n";
            return written;
        });
    return served && written ? kExitOk : kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
    ToolOptions options;
    const int code = ParseOptions(argc, argv, &options, std::cout, std::cerr);
    if (code >= 0) return code;
    if (!options.verbose) dlog_set_stderr_level(kLogSilent);
    try {
        return options.thumbnailerSize > 0 ? RunThumbnailerMode(options) : RunBatchMode(options);
    } catch (const std::exception& e) {
        std::cerr << "qrb-thumb: " << e.what() << "\n";
    }
    return kExitFailed;
}
