// The value classes of the object runtime.
#include "platform/foundation.h"

#include <cstring>

NSString* NSString::stringWithUTF8String(const char* text) {
    if (text == nullptr)
        return nullptr;
    return static_cast<NSString*>((new NSString(text))->autorelease());
}

NSString* NSConstantString(const char* text) {
    // Never released: constants live for the process.
    return new NSString(text);
}

NSNumber* NSNumber::numberWithUnsignedInt(unsigned int value) {
    return static_cast<NSNumber*>((new NSNumber(value, 0, false))->autorelease());
}

NSNumber* NSNumber::numberWithDouble(double value) {
    return static_cast<NSNumber*>((new NSNumber(0, value, true))->autorelease());
}

NSNumber* NSNumber::numberWithLong(long value) {
    return static_cast<NSNumber*>((new NSNumber(value, 0, false))->autorelease());
}

NSNumber* NSNumber::numberWithUnsignedLong(unsigned long value) {
    return static_cast<NSNumber*>(
        (new NSNumber(static_cast<long long>(value), 0, false))->autorelease());
}

NSValue* NSValue::valueWithBytes(const void* bytes, size_t size) {
    NSValue* value = new NSValue;
    if (bytes != nullptr)
        value->bytes.assign(static_cast<const unsigned char*>(bytes),
                            static_cast<const unsigned char*>(bytes) + size);
    return static_cast<NSValue*>(value->autorelease());
}

NSValue* NSValue::valueWithSize(NSSize size) {
    return valueWithBytes(&size, sizeof size);
}

void NSValue::getValue(void* out) const {
    if (out != nullptr && !bytes.empty())
        memcpy(out, bytes.data(), bytes.size());
}

NSSize NSValue::sizeValue() const {
    NSSize size{0, 0};
    if (bytes.size() == sizeof size)
        memcpy(&size, bytes.data(), sizeof size);
    return size;
}

SMPTETime NSValue::SMPTETimeValue() const {
    SMPTETime time;
    memset(&time, 0, sizeof time);
    if (bytes.size() == sizeof time)
        memcpy(&time, bytes.data(), sizeof time);
    return time;
}

NSArray::NSArray(const std::vector<NSObject*>& objects) {
    items.reserve(objects.size());
    for (NSObject* object : objects)
        if (object != nullptr)
            items.push_back(object->retain());
}

NSArray* NSArray::arrayWithObjects(const std::vector<NSObject*>& objects) {
    return static_cast<NSArray*>((new NSArray(objects))->autorelease());
}

NSArray::~NSArray() {
    for (NSObject* object : items)
        object->release();
}

NSDictionary::NSDictionary(const std::vector<std::pair<NSObject*, NSString*>>& objectsAndKeys) {
    for (const auto& entry : objectsAndKeys)
        Set(entry.first, entry.second);
}

NSDictionary::~NSDictionary() {
    for (auto& entry : entries)
        entry.second->release();
}

NSObject* NSDictionary::objectForKey(const NSString* key) const {
    if (key == nullptr)
        return nullptr;
    auto found = entries.find(key->str());
    return found == entries.end() ? nullptr : found->second;
}

NSArray* NSDictionary::allKeys() const {
    std::vector<NSObject*> keys;
    for (const auto& entry : entries)
        keys.push_back(NSString::stringWithUTF8String(entry.first.c_str()));
    return NSArray::arrayWithObjects(keys);
}

void NSDictionary::Set(NSObject* object, const NSString* key) {
    if (object == nullptr || key == nullptr)
        return;
    object->retain();
    NSObject*& slot = entries[key->str()];
    if (slot != nullptr)
        slot->release();
    slot = object;
}

void NSDictionary::Remove(const NSString* key) {
    if (key == nullptr)
        return;
    auto found = entries.find(key->str());
    if (found == entries.end())
        return;
    found->second->release();
    entries.erase(found);
}

NSURL* NSURL::fileURLWithPath(const NSString* path) {
    if (path == nullptr)
        return nullptr;
    return static_cast<NSURL*>((new NSURL(path->str()))->autorelease());
}

void NSSetError(NSError** error, const char* description) {
    if (error != nullptr)
        *error = static_cast<NSError*>((new NSError(description))->autorelease());
}

Class NSClassFromString(const char* name) {
    // The classes this platform layer provides, by their runtime names.
    static const char* const known[] = {"NSObject",
                                        "NSString",
                                        "NSNumber",
                                        "NSValue",
                                        "NSArray",
                                        "NSDictionary",
                                        "NSMutableDictionary",
                                        "NSURL",
                                        "NSError",
                                        "NSAutoreleasePool",
                                        "QTCaptureDevice",
                                        "QTCaptureSession",
                                        "QTCaptureDeviceInput",
                                        "QTCaptureConnection",
                                        "QTFormatDescription",
                                        "QTSampleBuffer",
                                        "QTCaptureDecompressedVideoOutput",
                                        "QTCaptureDecompressedAudioOutput",
                                        "QTCaptureMovieFileOutput"};
    if (name == nullptr)
        return nullptr;
    for (const char* const& known_name : known)
        if (strcmp(known_name, name) == 0)
            return &known_name;
    return nullptr;
}
