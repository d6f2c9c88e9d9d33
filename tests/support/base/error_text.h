#pragma once

#include <string>

#include "base/exception.h"

// The text of what `function` throws, or "none".
std::string ErrorOf(auto function) {
  try {
    function();
  } catch (Base::Exception const& err) {
    return err.what();
  }
  return "none";
}
