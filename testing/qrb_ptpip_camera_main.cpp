// qrb-test-camera: the simulated camera as a program, so that the demo (or a person) can point
// the library at a camera without hardware.
//
//   qrb-test-camera [--port N] [--ready FILE] [--delay-ms N] FOLDER...
//
// Each FOLDER becomes one storage of the camera, its subfolders and files copied as they are
// (JPEGs serve their EXIF thumbnail). The camera listens on 127.0.0.1 (port N, or any free
// one), prints "127.0.0.1:PORT" on a line of its own and, with --ready, writes the same line
// to FILE once it accepts connections. It runs until SIGINT or SIGTERM. Point the library at
// it with QRB_PTPIP_CAMERA=127.0.0.1:PORT; it then appears as the device "001;002".
#include "qrb_test_ptpip_responder.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

int Usage() {
    std::fprintf(stderr,
                 "usage: qrb-test-camera [--port N] [--ready FILE] [--delay-ms N] FOLDER...\n");
    return 2;
}

bool ParseNumber(const char* text, int low, int high, int* out) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || value < low || value > high) return false;
    *out = static_cast<int>(value);
    return true;
}

// Written under another name and renamed, so that a reader never sees half a line.
bool WriteReady(const std::string& path, const std::string& line) {
    const std::string temp = path + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << line << "\n";
        if (!out.flush()) return false;
    }
    return std::rename(temp.c_str(), path.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    int port = 0;
    int delayMs = 0;
    std::string ready;
    std::vector<std::string> folders;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--port" && i + 1 < argc) {
            if (!ParseNumber(argv[++i], 0, 65535, &port)) return Usage();
        } else if (arg == "--delay-ms" && i + 1 < argc) {
            if (!ParseNumber(argv[++i], 0, 600000, &delayMs)) return Usage();
        } else if (arg == "--ready" && i + 1 < argc) {
            ready = argv[++i];
        } else if (!arg.empty() && arg[0] == '-') {
            return Usage();
        } else {
            folders.push_back(arg);
        }
    }
    if (folders.empty()) return Usage();

    // The signals are taken with sigwait below; blocked before any thread starts, so that
    // every thread inherits the mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    qrbtest::PtpipResponder camera;
    for (const std::string& folder : folders) {
        const uint32_t storage = camera.AddStorage(folder.substr(folder.find_last_of('/') + 1));
        if (!camera.LoadFolder(storage, folder)) {
            std::fprintf(stderr, "qrb-test-camera: cannot read %s\n", folder.c_str());
            return 1;
        }
    }
    camera.SetResponseDelay(std::chrono::milliseconds(delayMs));
    if (!camera.Start(port)) {
        std::fprintf(stderr, "qrb-test-camera: cannot listen on 127.0.0.1:%d\n", port);
        return 1;
    }
    std::printf("%s\n", camera.Address().c_str());
    std::fflush(stdout);
    if (!ready.empty() && !WriteReady(ready, camera.Address())) {
        std::fprintf(stderr, "qrb-test-camera: cannot write %s\n", ready.c_str());
        return 1;
    }
    int signal = 0;
    sigwait(&stop, &signal);
    camera.Stop();
    return 0;
}
