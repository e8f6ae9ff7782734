// The recording decoder (the class name is spelled so, deliberately): turns the key frames a
// recorder hands over in memory into ARGB thumbnails of one requested size and keeps them in a
// PVR MTA file beside the recording's ".srf" file; reads such a file back into a _thumb_result.
//
// The PVR MTA file, all integers unsigned 32-bit little-endian:
//
//   "FSmta\0"            header
//   'F' 'W' width
//   'F' 'H' height
//   'F' 'D' depth        bytes a pixel, 4 when written here
//   'F' 'C' count 0 0    number of frames, 1 to 5
//   'F' '0'+i pixels     per frame, W x H x D bytes (no timestamp, unlike the video MTA file)
//   'F' 'E'              trailer (written, never read)
//
// A decoder object lives for one call on the caller's stack and keeps no state, so any number
// may run on any threads at once. It calls FFmpeg directly, not the plug-ins. Every failure is
// logged once and answered -1; nothing made on the way (buffers, a half-written MTA file, the
// temporary ".es" file) outlives the call.
#ifndef QRB_THUMBNAIL_PVR_DECODER_H
#define QRB_THUMBNAIL_PVR_DECODER_H

#include "qrb_thumbnail.h"

#include <string>

class QRBTempFile;

extern "C" {
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
}

class CQRBThumbanailPVRDecoder {
public:
    // Limits of the writer. A thumbnail needs far less than 4096 pixels on a side (five frames
    // of 4096 x 4096 are already 320 MiB); a key frame, even a 4K intra picture at a
    // broadcaster's rate, fits in 32 MiB.
    static constexpr int kMaxRequestSide = 4096;
    static constexpr int kMaxKeyFrameBytes = 32 << 20;
    // Limits of the reader: anything outside is not a file this library wrote.
    static constexpr int kMaxFileSide = 10000;
    static constexpr int kMaxFileDepth = 10;
    static constexpr int kMaxFrames = QRB_THUMB_MAX_IMAGES;

    // Decodes frame_count (1 to 5) key frames, brings each to request_width x request_height
    // and writes the MTA file for srf_path. 0 or -1.
    int SetPvrKeyFrame(_key_frame* frames, int frame_count, int request_width, int request_height,
                       const char* srf_path);
    // Reads the MTA file for srf_path into result (width, height, depth, count, pBuffer[i] and
    // nBufSize[i]; the caller frees the buffers). 0 or -1; on -1 nothing is allocated.
    int ParsePvrMtaFile(const char* srf_path, _thumb_result* result);

    // One MPEG-2 (1) or H.264 (2) access unit decoded from memory into a malloc'ed BGRA raster
    // of width x height (*out, *outSize). 0 or -1.
    int m_DecodeFrame(const unsigned char* buffer, int size, int encode_type, int width, int height,
                      unsigned char** out, int* outSize);
    // Decodes packet (a second time, draining, when the first gives no picture) and scales the
    // picture. 0 or -1.
    int m_DecodeFrameWithFFmpeg(AVCodecContext* context, AVFrame* frame, AVPacket* packet,
                                int width, int height, unsigned char** out, int* outSize);
    // An H.264 access unit decoded from the elementary-stream file es_path, which the caller has
    // written it to: the demuxer's parser splits a frame of two interlaced fields into the
    // packets the decoder wants, which one packet from memory would not give. 0 or -1.
    int m_DecodeFrameForH264_1080i(const unsigned char* buffer, int size, int encode_type,
                                   int width, int height, unsigned char** out, int* outSize,
                                   const char* es_path);
    // Writes the MTA file (a temporary name, renamed into place when complete). 0 or -1.
    int m_SaveMtaFile(unsigned char** buffers, int width, int height, int depth, int count,
                      const char* path);
    // Makes a folder and its missing parents (mode 0777) unless it exists.
    bool m_CreateDir(const char* path);
    // Creates path exclusively (never through a link planted at the name; a file left there by
    // an earlier call is replaced) and writes the bytes; the file goes when `file` does.
    bool m_WriteFlashFile(QRBTempFile& file, const std::string& path, const char* data,
                          int size);

    // Cuts the path at its last ".srf": "/x/y/rec.srf" gives base "/x/y/rec" and name "rec".
    // False, with its message, for a path without ".srf", or, when a name is asked for, without
    // a folder.
    static bool m_SplitSrfPath(const char* srf_path, std::string* base, std::string* name);

private:
    // Scales a decoded picture to width x height BGRA into a new malloc'ed buffer. 0 or -1.
    int m_ScaleFrame(const AVFrame* frame, int width, int height, unsigned char** out,
                     int* outSize);
};

#endif
