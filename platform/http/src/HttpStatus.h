// The HTTP status codes, besides httpOk, that the transfers distinguish.
#pragma once

namespace zav {

struct HttpStatus {
    static constexpr long partialContent = 206;
    static constexpr long movedPermanently = 301;
    static constexpr long found = 302;
    static constexpr long seeOther = 303;
    static constexpr long temporaryRedirect = 307;
    static constexpr long permanentRedirect = 308;
    static constexpr long unauthorized = 401;
    static constexpr long rangeNotSatisfiable = 416;
};

}  // namespace zav
