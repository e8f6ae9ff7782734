// The decoder plug-in with a gate the test installs (qrb_test_set_read_gate) in front of its read
// function, so that a test can hold the worker between two packets.
// The real plug-in, its read function under another name.
#define gst_ffmpegapi_av_read_frame qrb_gate_real_av_read_frame
#include "../../../../platform/linux/gst-ffmpeg/gst_ffmpegapi.cpp"
#undef gst_ffmpegapi_av_read_frame

#include <atomic>

namespace {
std::atomic<void (*)()> g_gate{nullptr};
}

extern "C" QRB_PLUGIN_EXPORT void qrb_test_set_read_gate(void (*gate)()) { g_gate = gate; }

extern "C" QRB_PLUGIN_EXPORT int gst_ffmpegapi_av_read_frame(QRBFFmpegInput* input,
                                                             struct AVPacket* packet) {
    if (void (*gate)() = g_gate.load()) gate();
    return qrb_gate_real_av_read_frame(input, packet);
}
