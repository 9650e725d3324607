// `tavix controls NAME [key=value ...] [--json] [--save FILE] [--load FILE]`, and the control
// helpers `capture --set` and the preview's keys use.
#include "controls.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "devices.h"
#include "llib/mac/tavix.h"
#include "options.h"

namespace {

const char* TypeText(int type) {
    switch (type) {
    case TavixControlTypeInteger:
        return "integer";
    case TavixControlTypeBoolean:
        return "boolean";
    case TavixControlTypeMenu:
        return "menu";
    case TavixControlTypeButton:
        return "button";
    case TavixControlTypeInteger64:
        return "integer64";
    case TavixControlTypeString:
        return "string";
    case TavixControlTypeIntegerMenu:
        return "integer_menu";
    default:
        return "other";
    }
}

std::vector<std::string> FlagTexts(unsigned int flags) {
    static const struct {
        unsigned int bit;
        const char* name;
    } names[] = {{TavixControlFlagReadOnly, "read_only"},
                 {TavixControlFlagInactive, "inactive"},
                 {TavixControlFlagVolatile, "volatile"},
                 {TavixControlFlagWriteOnly, "write_only"}};
    std::vector<std::string> texts;
    for (const auto& name : names)
        if (flags & name.bit)
            texts.emplace_back(name.name);
    return texts;
}

std::string Joined(const std::vector<std::string>& parts, const char* between) {
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : between) + part;
    return text;
}

// Controls whose value can be written back later: not read-only, not actions, not inactive.
bool CanBeSaved(const ControlInfo& control) {
    return control.type != TavixControlTypeButton &&
           !(control.flags &
             (TavixControlFlagReadOnly | TavixControlFlagWriteOnly | TavixControlFlagInactive));
}

std::string RangeText(const ControlInfo& control) {
    if (!control.menu.empty()) {
        std::vector<std::string> items;
        for (const auto& item : control.menu)
            items.push_back(std::to_string(item.first) + ": " + item.second);
        return Joined(items, ", ");
    }
    if (control.type == TavixControlTypeButton || control.type == TavixControlTypeBoolean)
        return "";
    if (control.type == TavixControlTypeString)
        return "up to " + std::to_string(control.maximum) + " characters";
    std::string range = std::to_string(control.minimum) + ".." + std::to_string(control.maximum);
    if (control.step > 1)
        range += " step " + std::to_string(control.step);
    return range;
}

std::string JsonValue(const ControlInfo& control) {
    if (control.type == TavixControlTypeString)
        return JsonText(control.text);
    if (control.type == TavixControlTypeButton)
        return "null";
    return std::to_string(control.value);
}

void PrintJson(const std::string& device, const std::string& id,
               const std::vector<ControlInfo>& controls) {
    printf("{\"device\": %s, \"id\": %s, \"controls\": [", JsonText(device).c_str(),
           JsonText(id).c_str());
    for (size_t i = 0; i < controls.size(); ++i) {
        const ControlInfo& c = controls[i];
        std::vector<std::string> flags;
        for (const std::string& flag : FlagTexts(c.flags))
            flags.push_back(JsonText(flag));
        printf("%s\n  {\"key\": %s, \"name\": %s, \"type\": \"%s\", \"value\": %s, \"minimum\": "
               "%lld, \"maximum\": %lld, \"step\": %lld, \"default\": %lld, \"flags\": [%s]",
               i == 0 ? "" : ",", JsonText(c.key).c_str(), JsonText(c.name).c_str(),
               TypeText(c.type), JsonValue(c).c_str(), c.minimum, c.maximum, c.step, c.defaultValue,
               Joined(flags, ", ").c_str());
        if (!c.menu.empty()) {
            std::vector<std::string> items;
            for (const auto& item : c.menu)
                items.push_back("{\"index\": " + std::to_string(item.first) +
                                ", \"name\": " + JsonText(item.second) + "}");
            printf(", \"menu\": [%s]", Joined(items, ", ").c_str());
        }
        printf("}");
    }
    printf("\n]}\n");
}

void PrintTable(const std::string& device, const std::vector<ControlInfo>& controls) {
    printf("%s\n", device.c_str());
    if (controls.empty()) {
        printf("  no controls\n");
        return;
    }
    int keyWidth = 3, valueWidth = 5, rangeWidth = 5;
    for (const ControlInfo& c : controls) {
        keyWidth = std::max(keyWidth, static_cast<int>(c.key.size()));
        valueWidth = std::max(valueWidth, static_cast<int>(ControlValueText(c, c.value).size()));
        rangeWidth = std::max(rangeWidth, static_cast<int>(RangeText(c).size()));
    }
    printf("  %-*s  %-12s  %-*s  %-*s  %-7s  %s\n", keyWidth, "key", "type", valueWidth, "value",
           rangeWidth, "range", "default", "flags");
    for (const ControlInfo& c : controls) {
        const bool hasDefault =
            c.type != TavixControlTypeButton && c.type != TavixControlTypeString;
        char line[4096];
        snprintf(line, sizeof line, "  %-*s  %-12s  %-*s  %-*s  %-7s  %s", keyWidth, c.key.c_str(),
                 TypeText(c.type), valueWidth, ControlValueText(c, c.value).c_str(), rangeWidth,
                 RangeText(c).c_str(), hasDefault ? std::to_string(c.defaultValue).c_str() : "",
                 Joined(FlagTexts(c.flags), ", ").c_str());
        std::string text = line;
        text.erase(text.find_last_not_of(' ') + 1);
        printf("%s\n", text.c_str());
    }
}

const ControlInfo* Find(const std::vector<ControlInfo>& controls, const std::string& key) {
    for (const ControlInfo& control : controls)
        if (control.key == key)
            return &control;
    return nullptr;
}

std::string RefusalText(unsigned long device, const std::string& key) {
    char text[1024];
    if (TavixDeviceGetLastError(device, text, sizeof text) && text[0] != '\0')
        return text;
    return "the device refused to set " + key;
}

// Whether the whole text is a decimal integer.
bool IsNumber(const std::string& text, long long& number) {
    char* end = nullptr;
    errno = 0;
    number = strtoll(text.c_str(), &end, 10);
    return !text.empty() && end != nullptr && *end == '\0' && errno == 0;
}

// A saved file: its lines "key=value", and the unique id its "# id: " line names.
bool ReadSaved(const std::string& path, std::vector<std::string>& settings, std::string& id) {
    std::ifstream file(path);
    if (!file)
        return false;
    std::string line;
    while (std::getline(file, line)) {
        if (line.rfind("# id: ", 0) == 0)
            id = line.substr(6);
        if (line.empty() || line[0] == '#')
            continue;
        settings.push_back(line);
    }
    return true;
}

bool Save(const std::string& path, const std::string& device, const std::string& id,
          const std::vector<ControlInfo>& controls, int& saved) {
    FILE* file = fopen(path.c_str(), "w");
    if (file == nullptr)
        return false;
    fprintf(file, "# tavix controls of %s\n# id: %s\n", device.c_str(), id.c_str());
    saved = 0;
    for (const ControlInfo& c : controls)
        if (CanBeSaved(c) && c.text.find('\n') == std::string::npos) {
            fprintf(file, "%s=%s\n", c.key.c_str(),
                    c.type == TavixControlTypeString ? c.text.c_str()
                                                     : std::to_string(c.value).c_str());
            ++saved;
        }
    return fclose(file) == 0;
}

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: tavix controls NAME [KEY=VALUE ...] [--json] [--save FILE] [--load FILE]\n\n"
            "Lists the controls of device NAME (brightness, exposure, focus, gain, ...): key,\n"
            "type, current value, range and step or menu items, default and flags. With\n"
            "KEY=VALUE it sets them in the order given and prints each value set: a number\n"
            "outside the range or off the step becomes the nearest allowed one; a menu takes an\n"
            "item's name or its first word (exposure_auto=manual), a boolean on or off. The\n"
            "first refusal ends the command with status 1 and the reason.\n"
            "  --json       prints the list as JSON (after any settings)\n"
            "  --save FILE  writes the values that can be set back, one KEY=VALUE a line, with\n"
            "               the device's unique id in a comment\n"
            "  --load FILE  sets the values of a saved file, in its order, before any KEY=VALUE;\n"
            "               a file saved from another device (another unique id) is applied\n"
            "               anyway, with a warning\n"
            "To set a manual value whose auto control is on, turn the auto control off first:\n"
            "  tavix controls NAME exposure_auto=manual exposure=200\n");
}

} // namespace

bool ReadControls(unsigned long device, std::vector<ControlInfo>& controls) {
    controls.clear();
    return TavixDeviceEnumerateControls(
        device,
        [](const TavixControl_C* c, void* context) {
            ControlInfo info;
            info.key = c->key;
            info.name = c->name;
            info.text = c->text != nullptr ? c->text : "";
            info.type = c->type;
            info.flags = c->flags;
            info.minimum = c->minimum;
            info.maximum = c->maximum;
            info.step = c->step;
            info.defaultValue = c->defaultValue;
            info.value = c->value;
            for (unsigned int i = 0; i < c->menuCount; ++i)
                info.menu.emplace_back(c->menu[i].index, c->menu[i].name);
            static_cast<std::vector<ControlInfo>*>(context)->push_back(std::move(info));
            return true;
        },
        &controls);
}

std::string ControlValueText(const ControlInfo& control, long long value) {
    switch (control.type) {
    case TavixControlTypeString:
        return "\"" + control.text + "\"";
    case TavixControlTypeButton:
        return "-";
    case TavixControlTypeBoolean:
        return value != 0 ? "on" : "off";
    case TavixControlTypeMenu:
    case TavixControlTypeIntegerMenu:
        for (const auto& item : control.menu)
            if (item.first == value)
                return std::to_string(value) + " (" + item.second + ")";
        return std::to_string(value);
    default:
        return std::to_string(value);
    }
}

bool IsSetting(const std::string& setting) {
    const size_t equals = setting.find('=');
    return equals != std::string::npos && equals > 0;
}

bool SetControlFromText(unsigned long device, const std::string& setting, std::string& told) {
    const size_t equals = setting.find('=');
    const std::string key = setting.substr(0, equals), text = setting.substr(equals + 1);
    if (TavixDeviceSetControlText(device, key.c_str(), text.c_str()) != TavixControlResultSet) {
        told = RefusalText(device, key);
        return false;
    }
    std::vector<ControlInfo> controls;
    const ControlInfo* control = ReadControls(device, controls) ? Find(controls, key) : nullptr;
    if (control == nullptr) {
        told = key + " set";
        return true;
    }
    if (control->type == TavixControlTypeButton) {
        told = key + " pressed";
        return true;
    }
    told = key + " = " + ControlValueText(*control, control->value);
    long long asked = 0;
    if (IsNumber(text, asked) && asked != control->value && control->menu.empty())
        told += " (nearest to " + text + ")";
    return true;
}

bool ApplySettings(unsigned long device, const std::vector<std::string>& settings, FILE* out) {
    for (const std::string& setting : settings) {
        std::string told;
        if (!SetControlFromText(device, setting, told)) {
            PrintError("%s", told.c_str());
            return false;
        }
        fprintf(out, "%s\n", told.c_str());
    }
    fflush(out);
    return true;
}

bool StepControl(unsigned long device, const std::string& key, int steps, std::string& told) {
    std::vector<ControlInfo> controls;
    ReadControls(device, controls);
    const ControlInfo* control = Find(controls, key);
    if (control == nullptr || control->type != TavixControlTypeInteger) {
        told = "this device has no " + key + " control";
        return false;
    }
    // Exposure is manual only while exposure_auto says so: the key switches it.
    if (key == "exposure" && (control->flags & TavixControlFlagInactive) &&
        Find(controls, "exposure_auto") != nullptr &&
        !SetControlFromText(device, "exposure_auto=manual", told))
        return false;
    const long long step = std::max(control->step, (control->maximum - control->minimum) / 32);
    const long long wanted =
        std::clamp(control->value + steps * step, control->minimum, control->maximum);
    return SetControlFromText(device, key + "=" + std::to_string(wanted), told);
}

int ControlsCommand(int argc, char** argv) {
    std::string name, savePath, loadPath;
    std::vector<std::string> settings;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            PrintUsage(stdout);
            return kExitOK;
        }
        if ((argument == "--save" || argument == "--load") && i + 1 >= argc) {
            PrintError("%s needs a file", argument.c_str());
            PrintUsage(stderr);
            return kExitUsage;
        }
        if (argument == "--json")
            json = true;
        else if (argument == "--save")
            savePath = argv[++i];
        else if (argument == "--load")
            loadPath = argv[++i];
        else if (argument[0] == '-') {
            PrintUnknownOption(argument, {"--json", "--save", "--load", "--help"});
            PrintUsage(stderr);
            return kExitUsage;
        } else if (name.empty())
            name = argument;
        else if (IsSetting(argument))
            settings.push_back(argument);
        else {
            PrintError("\"%s\" is not KEY=VALUE", argument.c_str());
            PrintUsage(stderr);
            return kExitUsage;
        }
    }
    if (name.empty()) {
        PrintError("controls needs a device name (see tavix list)");
        PrintUsage(stderr);
        return kExitUsage;
    }
    std::vector<std::string> loaded;
    std::string loadedId;
    if (!loadPath.empty() && !ReadSaved(loadPath, loaded, loadedId)) {
        PrintError("cannot read %s: %s", loadPath.c_str(), strerror(errno));
        return kExitFailure;
    }
    std::string noAudio;
    const unsigned long device = OpenNamedDevice(name, noAudio);
    if (device == 0)
        return kExitFailure;
    char idText[1024];
    const std::string id = TavixDeviceGetUniqueID(device, idText, sizeof idText) ? idText : "";
    if (!loadedId.empty() && loadedId != id)
        PrintError("warning: %s was saved from device %s, not %s; applying it anyway",
                   loadPath.c_str(), loadedId.c_str(), id.c_str());
    int status = kExitOK;
    // With --json the values set are told on standard error, leaving standard output to JSON.
    FILE* told = json ? stderr : stdout;
    if (!ApplySettings(device, loaded, told) || !ApplySettings(device, settings, told))
        status = kExitFailure;
    std::vector<ControlInfo> controls;
    if (status == kExitOK && !ReadControls(device, controls)) {
        PrintError("cannot read the controls of \"%s\"", name.c_str());
        status = kExitFailure;
    }
    int saved = 0;
    if (status == kExitOK && !savePath.empty()) {
        if (Save(savePath, name, id, controls, saved)) {
            printf("saved %d values to %s\n", saved, savePath.c_str());
        } else {
            PrintError("cannot write %s: %s", savePath.c_str(), strerror(errno));
            status = kExitFailure;
        }
    }
    if (status == kExitOK && json)
        PrintJson(name, id, controls);
    else if (status == kExitOK && settings.empty() && loadPath.empty() && savePath.empty())
        PrintTable(name, controls);
    TavixDeviceClose(device);
    TavixDeviceRelease(device);
    return status;
}
