#include "progress.h"

namespace qrbthumb {

ProgressLine::ProgressLine(std::FILE* stream, bool enabled, size_t total)
    : m_Stream(stream), m_Enabled(enabled && stream != nullptr), m_Total(total) {}

ProgressLine::~ProgressLine() { Finish(); }

void ProgressLine::Show(size_t answered, size_t failed) {
    if (!m_Enabled) return;
    // "\r" returns to the line's start, "\033[K" erases what a longer earlier text left.
    std::fprintf(m_Stream, "\rqrb-thumb: %zu/%zu answered, %zu failed\033[K", answered, m_Total,
                 failed);
    std::fflush(m_Stream);
    m_Shown = true;
}

void ProgressLine::Finish() {
    if (!m_Enabled || !m_Shown) return;
    std::fputs("\r\033[K", m_Stream);
    std::fflush(m_Stream);
    m_Shown = false;
}

}  // namespace qrbthumb
