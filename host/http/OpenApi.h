// The description of the HTTP front for machines (OpenAPI 3): page/openapi.json, embedded.
//
// Threads: constant.
#pragma once

#include <string_view>

namespace nphost {

std::string_view openApiDocument();

} // namespace nphost
