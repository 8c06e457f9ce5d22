#include "GLCallCheck.h"

#include <sstream>
#include <stdexcept>

namespace qlmr {
namespace gl {

void throwCallError(const char* signature, int line, unsigned int code) {
    std::ostringstream message;
    message << signature << ":" << line << " (" << code << ")";
    throw std::runtime_error(message.str());
}

}  // namespace gl
}  // namespace qlmr
