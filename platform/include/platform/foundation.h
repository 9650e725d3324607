// The value classes of the platform's object runtime that the library uses: strings, numbers,
// wrapped values, arrays, dictionaries, file URLs, errors, autorelease pools and class look-up
// by name. Class methods named ...With... return autoreleased objects; alloc/init pairs are
// plain `new` and hand the caller its one reference.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "llib/mac/smptetime.h"
#include "platform/nsobject.h"

class NSString;

// Releases obj when it is not null; the usual end of a field that owns one reference.
template <class T>
inline void NSReleaseIfSet(T*& obj) {
    if (obj != nullptr)
        obj->release();
    obj = nullptr;
}

enum : unsigned int { NSUTF8StringEncoding = 4 };

class NSString : public NSObject {
public:
    explicit NSString(std::string text) : text(std::move(text)) {}
    // Autoreleased; null for a null text.
    static NSString* stringWithUTF8String(const char* text);
    const char* UTF8String() const { return text.c_str(); }
    // The text in the given encoding; only UTF-8 is kept, other encodings give null.
    const char* cStringUsingEncoding(unsigned int encoding) const {
        return encoding == NSUTF8StringEncoding ? text.c_str() : nullptr;
    }
    bool isEqualToString(const NSString* other) const {
        return other != nullptr && text == other->text;
    }
    const std::string& str() const { return text; }

private:
    std::string text;
};

// A string that lives for the process (keys and media types), never deallocated.
NSString* NSConstantString(const char* text);

class NSNumber : public NSObject {
public:
    static NSNumber* numberWithUnsignedInt(unsigned int value);
    static NSNumber* numberWithDouble(double value);
    static NSNumber* numberWithLong(long value);
    static NSNumber* numberWithUnsignedLong(unsigned long value);
    unsigned int unsignedIntValue() const { return static_cast<unsigned int>(AsInteger()); }
    long longValue() const { return static_cast<long>(AsInteger()); }
    unsigned long unsignedLongValue() const { return static_cast<unsigned long>(AsInteger()); }
    double doubleValue() const { return isFloat ? floatValue : static_cast<double>(integerValue); }

private:
    NSNumber(long long integer, double floating, bool isFloat)
        : integerValue(integer), floatValue(floating), isFloat(isFloat) {}
    long long AsInteger() const {
        if (!isFloat)
            return integerValue;
        // Out-of-range doubles saturate rather than overflow.
        if (floatValue >= 9.2e18)
            return INT64_MAX;
        if (floatValue <= -9.2e18)
            return INT64_MIN;
        return static_cast<long long>(floatValue);
    }
    long long integerValue;
    double floatValue;
    bool isFloat;
};

struct NSSize {
    double width;
    double height;
};

// A copied value of plain bytes: a timecode record, a stream description, a size.
class NSValue : public NSObject {
public:
    static NSValue* valueWithBytes(const void* bytes, size_t size);
    static NSValue* valueWithSize(NSSize size);
    // Copies the stored bytes to out (which must have room for them).
    void getValue(void* out) const;
    size_t size() const { return bytes.size(); }
    NSSize sizeValue() const;
    // The value as a timecode record (zero when it holds something else).
    SMPTETime SMPTETimeValue() const;

private:
    std::vector<unsigned char> bytes;
};

// An immutable list that retains its objects.
class NSArray : public NSObject {
public:
    NSArray() = default;
    explicit NSArray(const std::vector<NSObject*>& objects);
    static NSArray* arrayWithObjects(const std::vector<NSObject*>& objects);
    size_t count() const { return items.size(); }
    // Null for an index past the end.
    NSObject* objectAtIndex(size_t index) const {
        return index < items.size() ? items[index] : nullptr;
    }

protected:
    ~NSArray() override;

private:
    std::vector<NSObject*> items;
};

// Maps string keys (compared by text) to retained objects.
class NSDictionary : public NSObject {
public:
    NSDictionary() = default;
    // From alternating object, key pairs, like initWithObjectsAndKeys:.
    explicit NSDictionary(const std::vector<std::pair<NSObject*, NSString*>>& objectsAndKeys);
    NSObject* objectForKey(const NSString* key) const;
    // Autoreleased array of the keys, in key order.
    NSArray* allKeys() const;
    size_t count() const { return entries.size(); }

protected:
    ~NSDictionary() override;
    void Set(NSObject* object, const NSString* key);
    void Remove(const NSString* key);

private:
    std::map<std::string, NSObject*> entries;
};

class NSMutableDictionary : public NSDictionary {
public:
    void setObject(NSObject* object, const NSString* key) { Set(object, key); }
    void removeObjectForKey(const NSString* key) { Remove(key); }
};

class NSURL : public NSObject {
public:
    explicit NSURL(std::string path) : filePath(std::move(path)) {}
    // Autoreleased file URL; null for a null path.
    static NSURL* fileURLWithPath(const NSString* path);
    const char* path() const { return filePath.c_str(); }

private:
    std::string filePath;
};

// Error objects are made by failing calls for their callers' out-parameters; their description
// is a sentence the capture layer passes on to the host.
class NSError : public NSObject {
public:
    explicit NSError(std::string description) : text(std::move(description)) {}
    const char* localizedDescription() const { return text.c_str(); }

private:
    std::string text;
};

// Stores a new autoreleased error in *error when error is not null.
void NSSetError(NSError** error, const char* description);

// A per-thread scope that releases the objects autoreleased on its thread while it is the
// innermost one. Pools nest; draining (release) an outer pool drains the inner ones first.
// Autoreleasing on a thread without a pool hands the object to the thread's own last-resort
// pool, drained when the thread ends.
class NSAutoreleasePool : public NSObject {
public:
    NSAutoreleasePool();
    void drain() { release(); }
    // Objects waiting in the calling thread's pools, for tests.
    static size_t pendingCount();
    // Releases what was autoreleased on this thread outside any pool.
    static void drainThreadOrphans();

protected:
    ~NSAutoreleasePool() override;

private:
    friend class NSObject;
    std::vector<NSObject*> objects;
};

// Class look-up by name; null when no such class exists. The capture classes are known by
// name ("QTCaptureDevice", "QTCaptureDecompressedAudioOutput", ...).
typedef const void* Class;
Class NSClassFromString(const char* name);
