#include <stdexcept>
#include "rows.h"
namespace bench {
std::vector<Figure> session_rows(const Plan &, const std::string &) { throw std::runtime_error("not yet"); }
}
