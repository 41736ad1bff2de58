// The progress bar on stderr while an image renders.
#ifndef KELR_RENDER_PROGRESS_H
#define KELR_RENDER_PROGRESS_H

#include <cstdio>
#include <string>

#include "renderer.h"

namespace render {

// "[##########..........]  384/768 tiles   2.1 s   14.2 Mrays/s"
std::string progressLine(const RenderProgress& progress, int barWidth);

class ProgressBar {
  public:
    // On a terminal the line is redrawn in place; elsewhere (a log, a pipe)
    // only the finished line is written, so logs stay readable.
    explicit ProgressBar(FILE* out);
    void update(const RenderProgress& progress);
    // Ends the line once the last update has been drawn.
    void finish();

  private:
    FILE* out_;
    bool terminal_;
    bool drawn_ = false;
    RenderProgress last_;
};

}  // namespace render

#endif
