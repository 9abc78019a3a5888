// The writer's output as arbitrary bytes: every line is read without a crash, and what counts
// as a report always carries numbers the model can divide by.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "writer_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view all(reinterpret_cast<const char*>(data), size);
    while (!all.empty()) {
        size_t end = all.find('\n');
        std::string_view line = all.substr(0, end == std::string_view::npos ? all.size() : end + 1);
        all.remove_prefix(line.size());
        WriterLine r = parseWriterLine(line);
        bool report = r.kind == WriterLine::Checked || r.kind == WriterLine::Progress || r.kind == WriterLine::Verified;
        if (report && !(r.total > 0 && r.done >= 0 && std::isfinite(r.done) && r.done < 9.3e18)) std::abort();
        if (r.kind == WriterLine::Error && !r.message.empty() &&
            (r.message.front() == ' ' || r.message.back() == ' ' || r.message.back() == '\n'))
            std::abort();
        if (line.size() > kWriterLineLimit + 1 && r.kind != WriterLine::Other) std::abort();
    }
    return 0;
}
