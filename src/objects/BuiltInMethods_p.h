#pragma once

/** Method codes of what every object answers, whatever its class. */
namespace BuiltIn {

constexpr unsigned registerObserver = 1000;
constexpr unsigned removeObserver = 1001;
constexpr unsigned getAbsName = 1100;
constexpr unsigned getRelName = 1101;
constexpr unsigned getParent = 1103;
constexpr unsigned getChild = 1104;
constexpr unsigned getChilds = 1105;
constexpr unsigned registerChild = 1106;
constexpr unsigned unregisterChild = 1107;
constexpr unsigned getClassIds = 1108;
constexpr unsigned setExceptionContainer = 2100;
constexpr unsigned getExceptionContainer = 2101;

} // namespace BuiltIn
