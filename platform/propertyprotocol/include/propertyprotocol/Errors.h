// Error codes in answers of the property service.
#pragma once

namespace propertyprotocol::errors {

inline constexpr char badRequest[] = "bad-request";
inline constexpr char invalidValue[] = "invalid-value";
inline constexpr char notFound[] = "not-found";
inline constexpr char readOnly[] = "read-only";
inline constexpr char storage[] = "storage";

}  // namespace propertyprotocol::errors
