#include "status.h"

namespace render {

const char* statusName(KelStatus status) {
    switch (status) {
        case KEL_STS_OK:
            return "KEL_STS_OK";
        case KEL_STS_INTERNAL:
            return "KEL_STS_INTERNAL";
        case KEL_STS_NO_MEM:
            return "KEL_STS_NO_MEM";
        case KEL_STS_BAD_ARG:
            return "KEL_STS_BAD_ARG";
        case KEL_STS_SIZE:
            return "KEL_STS_SIZE";
        case KEL_STS_NULL_PTR:
            return "KEL_STS_NULL_PTR";
        case KEL_STS_OVERFLOW:
            return "KEL_STS_OVERFLOW";
        case KEL_STS_OUT_OF_RANGE:
            return "KEL_STS_OUT_OF_RANGE";
    }
    return "unknown status";
}

static std::string describe(const char* function, KelStatus status, const std::string& hint) {
    std::string text = std::string(function) + " failed: " + statusName(status) + " (" +
                       std::to_string(status) + ")";
    if (!hint.empty()) text += ": " + hint;
    return text;
}

LibraryError::LibraryError(const char* function, KelStatus status, const std::string& hint)
    : std::runtime_error(describe(function, status, hint)), function_(function), status_(status) {}

}  // namespace render
