#include "Core/Constants.h"

namespace zav {

const Constants constants;

}  // namespace zav
