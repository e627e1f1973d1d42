// The headers that most sources of library and programs include, compiled once. Every source still includes the headers
// that it uses.
#pragma once

#include "qor/qor.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>
