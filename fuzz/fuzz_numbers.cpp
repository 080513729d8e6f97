// Fuzzes the text of a decimal number.
#include <cerrno>
#include <cstdint>
#include <string>

#include "fuzz/support/number_model.h"
#include "fuzz/support/require.h"
#include "quorvane_lib/utils_str.h"

namespace {

using qv::utils::str::try_parse_status;

template <typename T>
void compare(const std::string& text, std::uint64_t largest) {
    constexpr T untouched = 7777;
    const qv::fuzz::NumberModel number = qv::fuzz::read_number(text);
    const bool fits = !number.overflow && number.value() <= largest;
    const bool stored = number.digits && fits;
    const try_parse_status expected = !fits          ? try_parse_status::out_of_range
                                      : number.whole ? try_parse_status::ok
                                                     : try_parse_status::invalid_format;
    T value = untouched;
    const auto result = qv::utils::str::try_parse_value<T, 10>(text.c_str(), value);
    qv::fuzz::require_equal("status", static_cast<int>(result.status), static_cast<int>(expected));
    qv::fuzz::require_equal("value", value, stored ? static_cast<T>(number.value()) : untouched);
    qv::fuzz::require_equal("errno", errno, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = qv::fuzz::as_text(data, size).c_str();
    compare<unsigned short>(text, 0xFFFF);
    compare<unsigned long>(text, qv::fuzz::LARGEST);
    return 0;
}
