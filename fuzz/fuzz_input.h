// Splitting a fuzz input into the texts and numbers a target needs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Reads the input front to back: numbers from its first bytes, texts separated by 0 bytes.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data(data), size(size) {}

    // A number from the next two bytes (0 when the input has run out).
    unsigned int Number() {
        unsigned int value = 0;
        for (int i = 0; i < 2 && at < size; ++i)
            value = value << 8 | data[at++];
        return value;
    }
    // The bytes up to the next 0 byte or the end, without a 0 inside.
    std::string Text() {
        std::string text;
        while (at < size && data[at] != 0)
            text += static_cast<char>(data[at++]);
        if (at < size)
            ++at;
        return text;
    }
    // The rest of the input as whole units of T.
    template <class T>
    std::vector<T> Units() {
        std::vector<T> units;
        while (at + sizeof(T) <= size) {
            T unit = 0;
            for (size_t i = 0; i < sizeof(T); ++i)
                unit = static_cast<T>(static_cast<unsigned long long>(unit) << 8 | data[at++]);
            units.push_back(unit);
        }
        return units;
    }

private:
    const uint8_t* data;
    size_t size;
    size_t at = 0;
};

// Stops the fuzzer with a report when a property does not hold.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition))                                                                          \
            __builtin_trap();                                                                      \
    } while (0)
