// A one-line progress display ("qrb-thumb: 12/40 answered, 3 failed") redrawn in place. It is
// meant for a terminal only: main enables it when stderr is one, so logs and pipes stay clean.
#ifndef QRB_THUMB_TOOL_PROGRESS_H
#define QRB_THUMB_TOOL_PROGRESS_H

#include <cstddef>
#include <cstdio>

namespace qrbthumb {

class ProgressLine {
public:
    // Writes nothing at all unless enabled.
    ProgressLine(std::FILE* stream, bool enabled, size_t total);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void Show(size_t answered, size_t failed);
    // Erases the line, so that the report starts on a clean one.
    void Finish();

private:
    std::FILE* m_Stream;
    bool m_Enabled;
    bool m_Shown = false;
    size_t m_Total;
};

}  // namespace qrbthumb

#endif
