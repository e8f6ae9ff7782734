#include "result_files.h"

#include "image_writer.h"
#include "qrb_scoped.h"

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

namespace qrbthumb {

namespace {

// Long enough for any sensible name, short enough that "<stem>~NN-N.png" fits NAME_MAX.
constexpr size_t kMaxStem = 200;


std::string LastSegment(std::string text) {
    while (!text.empty() && text.back() == '/') text.pop_back();
    const size_t slash = text.rfind('/');
    return slash == std::string::npos ? text : text.substr(slash + 1);
}

// "scheme://" at the very start (a DLNA triple carries a URL in its second field).
size_t SchemeEnd(const std::string& input) {
    const size_t end = input.find("://");
    if (end == std::string::npos || end == 0) return std::string::npos;
    for (size_t i = 0; i < end; ++i) {
        const unsigned char c = static_cast<unsigned char>(input[i]);
        if (!(std::isalnum(c) || c == '+' || c == '-' || c == '.')) return std::string::npos;
    }
    return end;
}

std::string NameOf(const std::string& input) {
    const size_t scheme = SchemeEnd(input);
    if (scheme != std::string::npos) {
        std::string rest = input.substr(scheme + 3);
        rest = rest.substr(0, rest.find_first_of("?#"));
        return LastSegment(rest);  // the host when the URL has no path
    }
    if (std::count(input.begin(), input.end(), ';') == 2) {
        return LastSegment(input.substr(0, input.find(';')));
    }
    return LastSegment(input);
}

bool WriteBytes(const std::string& path, const unsigned char* bytes, size_t size,
                std::string* error) {
    QRBScopedFile file(std::fopen(path.c_str(), "wb"));
    if (!file) {
        *error = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    const bool written = size == 0 || std::fwrite(bytes, 1, size, file.get()) == size;
    const bool closed = std::fclose(file.release()) == 0;
    if (!written || !closed) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        std::remove(path.c_str());
        return false;
    }
    return true;
}

std::string Join(const std::string& dir, const std::string& name) {
    if (dir.empty() || dir == ".") return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

}  // namespace

std::string StemOf(const std::string& input) {
    std::string stem = NameOf(input);
    for (char& c : stem) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (!(std::isalnum(u) && u < 0x80) && c != '.' && c != '_' && c != '+' && c != '-') c = '_';
    }
    if (!stem.empty() && stem[0] == '.') stem[0] = '_';
    if (stem.size() > kMaxStem) stem.resize(kMaxStem);
    return stem.empty() ? "input" : stem;
}

std::vector<std::string> UniqueStems(const std::vector<std::string>& inputs) {
    std::vector<std::string> stems;
    std::set<std::string> taken;
    for (const auto& input : inputs) {
        const std::string base = StemOf(input);
        std::string stem = base;
        for (int n = 2; !taken.insert(stem).second; ++n) stem = base + "~" + std::to_string(n);
        stems.push_back(stem);
    }
    return stems;
}

const char* EncodedExtension(const unsigned char* bytes, size_t size) {
    auto starts = [&](size_t offset, const char* sig, size_t n) {
        return size >= offset + n && std::memcmp(bytes + offset, sig, n) == 0;
    };
    if (starts(0, "\xFF\xD8\xFF", 3)) return "jpg";
    if (starts(0, "\x89PNG\r\n\x1A\n", 8)) return "png";
    if (starts(0, "GIF87a", 6) || starts(0, "GIF89a", 6)) return "gif";
    if (starts(0, "RIFF", 4) && starts(8, "WEBP", 4)) return "webp";
    if (starts(0, "BM", 2)) return "bmp";
    if (starts(0, "II*\0", 4) || starts(0, "MM\0*", 4)) return "tif";
    if (starts(4, "ftypavif", 8)) return "avif";
    if (starts(4, "ftypheic", 8) || starts(4, "ftypheix", 8) || starts(4, "ftypmif1", 8)) {
        return "heic";
    }
    return "bin";
}

void WriteAnswerFiles(const Answer& answer, ImageFormat format, const std::string& dir,
                      const std::string& stem, Outcome* outcome) {
    outcome->milliseconds = answer.elapsed.count();
    outcome->ok = false;
    outcome->frames = 0;
    outcome->width = 0;
    outcome->height = 0;
    outcome->outputs.clear();
    if (!answer.answered) {
        outcome->note = outcome->reason = "no answer before the time-out";
        return;
    }
    if (answer.status != 0) {
        outcome->reason = answer.reason;
        outcome->note = !answer.reason.empty()
                            ? answer.reason
                            : "the library could not make a thumbnail (status " +
                                  std::to_string(answer.status) + ")";
        return;
    }

    std::vector<std::string> problems;
    for (const auto& image : answer.images) {
        std::string error;
        if (answer.encoded) {
            // One encoded image keeps the plain name; several are told apart by their slot.
            const std::string slot =
                answer.images.size() > 1 ? "-" + std::to_string(image.slot) : std::string();
            const std::string name =
                Join(dir, stem + slot + "." + EncodedExtension(image.bytes.get(), image.size));
            if (WriteBytes(name, image.bytes.get(), image.size, &error)) {
                outcome->outputs.push_back(name);
                ++outcome->frames;
            } else {
                problems.push_back(error);
            }
            continue;
        }
        // The record gives one size, that of the last image; an image of another size
        // cannot be laid out and is reported instead of guessed at.
        const std::string name =
            Join(dir, stem + "-" + std::to_string(image.slot) + "." + ExtensionOf(format));
        if (WriteBgraImage(name, format, image.bytes.get(), image.size, answer.width,
                           answer.height, {}, &error)) {
            outcome->outputs.push_back(name);
            ++outcome->frames;
        } else {
            problems.push_back("image " + std::to_string(image.slot) + ": " + error);
        }
    }
    if (outcome->frames > 0 && !answer.encoded) {
        outcome->width = answer.width;
        outcome->height = answer.height;
    }
    if (problems.empty() && outcome->frames == 0) {
        // The library answered, but with nothing: its reason, when it gave one, says why.
        outcome->reason = answer.reason;
        problems.push_back(!answer.reason.empty() ? answer.reason
                                                  : "no image in the library's answer");
    }
    outcome->ok = problems.empty();
    outcome->note.clear();
    for (const auto& problem : problems) {
        outcome->note += (outcome->note.empty() ? "" : "; ") + problem;
    }
}

}  // namespace qrbthumb
