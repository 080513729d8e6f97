// Replaces the errors of Kaitai Struct's runtime library; see kaitaistruct.h.
#pragma once

#include <stdexcept>
#include <string>

#include "kaitai/kaitaistruct.h"

namespace kaitai {

// The place of a value that the description does not allow.
class validation_error : public std::runtime_error {
  public:
    explicit validation_error(const std::string& place) : std::runtime_error("invalid: " + place) {}
};

template <typename T>
class validation_not_equal_error : public validation_error {
  public:
    validation_not_equal_error(const T&, const T&, kstream*, const std::string& place)
        : validation_error(place) {}
};

template <typename T>
class validation_less_than_error : public validation_error {
  public:
    validation_less_than_error(const T&, const T&, kstream*, const std::string& place)
        : validation_error(place) {}
};

template <typename T>
class validation_greater_than_error : public validation_error {
  public:
    validation_greater_than_error(const T&, const T&, kstream*, const std::string& place)
        : validation_error(place) {}
};

template <typename T>
class validation_not_any_of_error : public validation_error {
  public:
    validation_not_any_of_error(const T&, kstream*, const std::string& place)
        : validation_error(place) {}
};

}  // namespace kaitai
