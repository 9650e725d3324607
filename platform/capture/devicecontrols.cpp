// The rules every backend's controls share: keys made from names, the nearest allowed value,
// and values named as text.
#include "platform/devicecontrols.h"

#include <cerrno>
#include <cstdlib>
#include <set>
#include <strings.h>

namespace platform {

namespace {

bool IsAlphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool ParseInteger(const std::string& text, int64_t& value) {
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    const long long parsed = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != 0)
        return false;
    value = parsed;
    return true;
}

bool EqualNoCase(const std::string& a, const char* b) {
    return strcasecmp(a.c_str(), b) == 0;
}

std::string FirstWord(const std::string& key) {
    return key.substr(0, key.find('_'));
}

bool MenuValueForText(const DeviceControl& control, const std::string& text, int64_t& value) {
    const std::string wanted = ControlKeyFromName(text);
    const ControlMenuItem* byWord = nullptr;
    int wordMatches = 0;
    for (const ControlMenuItem& item : control.menu) {
        if (EqualNoCase(item.name, text.c_str()) || ControlKeyFromName(item.name) == wanted) {
            value = item.index;
            return true;
        }
        if (FirstWord(ControlKeyFromName(item.name)) == wanted) {
            byWord = &item;
            ++wordMatches;
        }
    }
    if (wordMatches == 1) {
        value = byWord->index;
        return true;
    }
    int64_t number = 0;
    if (!ParseInteger(text, number))
        return false;
    // An integer menu's number names its item; otherwise the number is an index.
    if (control.type == ControlType::IntegerMenu)
        for (const ControlMenuItem& item : control.menu)
            if (item.value == number) {
                value = item.index;
                return true;
            }
    value = number;
    return true;
}

} // namespace

std::string ControlKeyFromName(const std::string& name) {
    std::string key;
    bool separate = false;
    for (char c : name) {
        if (!IsAlphanumeric(c)) {
            separate = !key.empty();
            continue;
        }
        if (separate)
            key += '_';
        separate = false;
        key += (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c;
    }
    return key.empty() ? "control" : key;
}

void MakeControlKeysUnique(std::vector<DeviceControl>& controls) {
    std::set<std::string> seen;
    for (DeviceControl& control : controls) {
        std::string key = control.key;
        for (int n = 2; seen.count(key) != 0; ++n)
            key = control.key + "_" + std::to_string(n);
        control.key = key;
        seen.insert(key);
    }
}

int64_t NearestAllowedValue(const DeviceControl& control, int64_t wish) {
    switch (control.type) {
    case ControlType::Boolean:
        return wish != 0 ? 1 : 0;
    case ControlType::Menu:
    case ControlType::IntegerMenu: {
        int64_t nearest = wish;
        bool found = false;
        for (const ControlMenuItem& item : control.menu) {
            // Distances in unsigned arithmetic: indices may span the whole 64-bit range.
            const uint64_t distance = item.index >= wish ? uint64_t(item.index) - uint64_t(wish)
                                                         : uint64_t(wish) - uint64_t(item.index);
            const uint64_t best = nearest >= wish ? uint64_t(nearest) - uint64_t(wish)
                                                  : uint64_t(wish) - uint64_t(nearest);
            if (!found || distance < best || (distance == best && item.index < nearest))
                nearest = item.index;
            found = true;
        }
        return nearest;
    }
    case ControlType::Integer:
    case ControlType::Integer64: {
        if (control.maximum < control.minimum)
            return wish;
        if (wish <= control.minimum)
            return control.minimum;
        if (wish >= control.maximum)
            return control.maximum;
        const uint64_t step = control.step > 1 ? uint64_t(control.step) : 1;
        const uint64_t offset = uint64_t(wish) - uint64_t(control.minimum);
        uint64_t steps = offset / step;
        if (offset % step >= step - step / 2) // halfway and beyond round up
            ++steps;
        // Compared in steps, not in units: steps * step may wrap past 2^64 on a wide range.
        const uint64_t span = uint64_t(control.maximum) - uint64_t(control.minimum);
        if (steps > span / step)
            steps = span / step; // the last step that stays inside the range
        return int64_t(uint64_t(control.minimum) + steps * step);
    }
    default:
        return wish;
    }
}

bool ValueForText(const DeviceControl& control, const std::string& text, int64_t& value) {
    switch (control.type) {
    case ControlType::String:
        return false;
    case ControlType::Boolean:
        for (const char* on : {"on", "true", "yes"})
            if (EqualNoCase(text, on)) {
                value = 1;
                return true;
            }
        for (const char* off : {"off", "false", "no"})
            if (EqualNoCase(text, off)) {
                value = 0;
                return true;
            }
        return ParseInteger(text, value);
    case ControlType::Menu:
    case ControlType::IntegerMenu:
        return MenuValueForText(control, text, value);
    default:
        return ParseInteger(text, value);
    }
}

} // namespace platform
