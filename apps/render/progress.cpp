#include "progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace render {

std::string progressLine(const RenderProgress& progress, int barWidth) {
    const int total = std::max(progress.tilesTotal, 1);
    const int filled = int(int64_t(barWidth) * progress.tilesDone / total);
    std::string bar = "[" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "]";
    const double rate = progress.seconds > 0.0 ? progress.rays.total() / progress.seconds : 0.0;
    char figures[96];
    std::snprintf(figures, sizeof figures, " %d/%d tiles  %6.1f s  %7.2f Mrays/s",
                  progress.tilesDone, progress.tilesTotal, progress.seconds, rate * 1e-6);
    return bar + figures;
}

ProgressBar::ProgressBar(FILE* out) : out_(out), terminal_(isatty(fileno(out)) != 0) {}

void ProgressBar::update(const RenderProgress& progress) {
    last_ = progress;
    if (!terminal_) return;
    std::fprintf(out_, "\r%s", progressLine(progress, 30).c_str());
    std::fflush(out_);
    drawn_ = true;
}

void ProgressBar::finish() {
    if (terminal_ && drawn_)
        std::fprintf(out_, "\n");
    else
        std::fprintf(out_, "%s\n", progressLine(last_, 30).c_str());
    std::fflush(out_);
}

}  // namespace render
