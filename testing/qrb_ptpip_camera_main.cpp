// qrb-test-camera [--ready FILE] FOLDER...: the simulated camera as a program, so that the demo
// (or a person) can point the library at a camera without hardware. Each FOLDER becomes one
// storage (JPEGs serve their EXIF thumbnail). It listens on a free port of 127.0.0.1, prints
// "127.0.0.1:PORT" (with --ready, also into FILE, which appears whole) and runs until SIGINT or
// SIGTERM. With QRB_PTPIP_CAMERA=127.0.0.1:PORT the library sees it as the device "001;002".
#include "qrb_test_ptpip_responder.h"

#include <signal.h>

#include <cstdio>
#include <fstream>
#include <string>

int main(int argc, char** argv) {
    const bool hasReady = argc > 2 && std::string(argv[1]) == "--ready";
    const int first = hasReady ? 3 : 1;
    if (first >= argc) {
        std::fprintf(stderr, "usage: qrb-test-camera [--ready FILE] FOLDER...\n");
        return 2;
    }
    // Blocked before any thread starts, so that every thread inherits the mask; taken below.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    qrbtest::PtpipResponder camera;
    for (int i = first; i < argc; ++i) {
        const std::string folder = argv[i];
        if (!camera.LoadFolder(camera.AddStorage(folder.substr(folder.find_last_of('/') + 1)),
                               folder)) {
            std::fprintf(stderr, "qrb-test-camera: cannot read %s\n", folder.c_str());
            return 1;
        }
    }
    if (!camera.Start()) {
        std::fprintf(stderr, "qrb-test-camera: cannot listen on 127.0.0.1\n");
        return 1;
    }
    std::printf("%s\n", camera.Address().c_str());
    std::fflush(stdout);
    if (hasReady) {
        const std::string temp = std::string(argv[2]) + ".tmp";
        if (!(std::ofstream(temp) << camera.Address() << std::endl) ||
            std::rename(temp.c_str(), argv[2]) != 0) {
            std::fprintf(stderr, "qrb-test-camera: cannot write %s\n", argv[2]);
            return 1;
        }
    }
    int signal = 0;
    sigwait(&stop, &signal);
    camera.Stop();
    return 0;
}
