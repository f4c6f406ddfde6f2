// tqcam get, tqcam set: parameters by name.
#include "cli.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

// How the bytes of a parameter's value are put together: widths of its numbers, in order.
struct ParamName {
    const char *name;
    uint32_t id;
    const char *widths; // '1', '2', '4' bytes a number; "text" for text
    bool writable;
    const char *meaning;
};

static const ParamName _params[] = {
    {"freq", TQCAM_PARAM_MOD_FREQ, "4", true, "modulation frequency, Hz"},
    {"dual-freq", TQCAM_PARAM_DUAL_FREQ, "44", true, "pair of modulation frequencies, Hz,Hz"},
    {"format", TQCAM_PARAM_FORMAT, "4", true, "frame format"},
    {"fps", TQCAM_PARAM_FPS, "4", true, "frames per second"},
    {"intg", TQCAM_PARAM_INTG1, "2", true, "integration time, us"},
    {"intg2", TQCAM_PARAM_INTG2, "2", true, "second integration time, us; 0 is off"},
    {"roi", TQCAM_PARAM_ROI, "222241", true, "row start,row end,column start,column end,binning,0"},
    {"gray-div", TQCAM_PARAM_GRAY_DIV, "2", true, "divisor of the gray reference"},
    {"mode", TQCAM_PARAM_DEV_MODE, "4", true, "device mode; 0 is normal"},
    {"vendor", TQCAM_PARAM_VENDOR, "text", false, "vendor"},
    {"product", TQCAM_PARAM_PRODUCT, "text", false, "product"},
    {"limits", TQCAM_PARAM_LIMITS, "22222", false, "width,height,-,frames per second,us"},
    {"serial", TQCAM_PARAM_SERIAL, "444", false, "serial words"},
    {"version", TQCAM_PARAM_VERSION, "222", false, "hardware,software,boot"},
    {"chip", TQCAM_PARAM_CHIP_ID, "222", false, "p,chip,wafer"},
};

static const ParamName &_find(const std::string &name)
{
    for (const ParamName &param : _params)
        if (name == param.name)
            return param;
    throw CliError{EXIT_USAGE, "no parameter " + name + "; tqcam get --help lists them"};
}

static bool _is_text(const ParamName &param)
{
    return std::strcmp(param.widths, "text") == 0;
}

static uint8_t _length(const ParamName &param)
{
    if (_is_text(param))
        return 18;
    uint8_t length = 0;
    for (const char *w = param.widths; *w; w++)
        length = static_cast<uint8_t>(length + (*w - '0'));
    return length;
}

static std::string _help()
{
    std::string text = "Parameters:\n";
    for (const ParamName &param : _params)
        text += "  " + std::string(param.name) + std::string(12 - std::strlen(param.name), ' ') +
                param.meaning + (param.writable ? "\n" : " (read only)\n");
    return text;
}

static void _get(const GlobalOptions &global, const std::string &uri, std::vector<std::string> names,
                 bool json)
{
    if (names.empty())
        for (const ParamName &param : _params)
            names.push_back(param.name);
    for (const std::string &name : names)
        _find(name);
    Library library(global, json);
    Device device(uri);
    nlohmann::json out = nlohmann::json::object();
    for (const std::string &name : names) {
        const ParamName &param = _find(name);
        tqcam_param_item_t item = {};
        item.param_id = param.id;
        item.param_len = _length(param);
        if (!tqcam_param_batch_get(device.get(), &item, 1))
            throw CliError{EXIT_FAILED, "the device does not answer for " + name};
        if (item.param_len == 0)
            continue; // not known to this device
        if (_is_text(param)) {
            const std::string text(reinterpret_cast<const char *>(item.value),
                                   strnlen(reinterpret_cast<const char *>(item.value), sizeof item.value));
            json ? void(out[name] = text) : void(std::printf("%s=%s\n", name.c_str(), text.c_str()));
            continue;
        }
        std::vector<uint32_t> numbers;
        size_t at = 0;
        for (const char *w = param.widths; *w; w++) {
            uint32_t value = 0;
            std::memcpy(&value, item.value + at, static_cast<size_t>(*w - '0'));
            at += static_cast<size_t>(*w - '0');
            numbers.push_back(value);
        }
        if (json) {
            out[name] = numbers.size() == 1 ? nlohmann::json(numbers[0]) : nlohmann::json(numbers);
            continue;
        }
        std::printf("%s=", name.c_str());
        for (size_t i = 0; i < numbers.size(); i++)
            std::printf("%s%u", i ? "," : "", numbers[i]);
        std::printf("\n");
    }
    if (json)
        std::printf("%s\n", out.dump(2).c_str());
}

static tqcam_param_item_t _parse(const std::string &text)
{
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
        throw CliError{EXIT_USAGE, text + ": write NAME=VALUE"};
    const ParamName &param = _find(text.substr(0, equals));
    if (!param.writable)
        throw CliError{EXIT_USAGE, std::string(param.name) + " can only be read"};
    tqcam_param_item_t item = {};
    item.param_id = param.id;
    item.param_len =
        param.id == TQCAM_PARAM_FPS || param.id == TQCAM_PARAM_INTG1 || param.id == TQCAM_PARAM_INTG2
            ? 4
            : _length(param);
    std::istringstream values(text.substr(equals + 1));
    std::string part;
    size_t at = 0;
    const char *w = param.widths;
    while (std::getline(values, part, ',')) {
        char *end = nullptr;
        const unsigned long long value = std::strtoull(part.c_str(), &end, 0);
        const int bytes = *w ? *w++ - '0' : 0;
        if (bytes == 0 || part.empty() || *end != '\0' || value >> (8 * bytes) != 0)
            throw CliError{EXIT_USAGE, text + ": expected " + param.meaning};
        std::memcpy(item.value + at, &value, static_cast<size_t>(bytes));
        at += static_cast<size_t>(bytes);
    }
    if (*w != '\0')
        throw CliError{EXIT_USAGE, text + ": expected " + param.meaning};
    return item;
}

static void _set(const GlobalOptions &global, const std::string &uri,
                 const std::vector<std::string> &settings)
{
    std::vector<tqcam_param_item_t> items;
    for (const std::string &setting : settings)
        items.push_back(_parse(setting));
    Library library(global);
    Device device(uri);
    if (!tqcam_param_batch_set(device.get(), items.data(), static_cast<int>(items.size())))
        throw CliError{EXIT_FAILED, "the device refused"};
}

void add_params(CLI::App &app, const GlobalOptions &global)
{
    auto uri = std::make_shared<std::string>();
    auto words = std::make_shared<std::vector<std::string>>();
    auto json = std::make_shared<bool>(false);
    CLI::App *get = app.add_subcommand("get", "read parameters by name");
    get->add_option("URI", *uri, "camera or recording; \"\" is the first camera")->required();
    get->add_option("NAME", *words, "parameters; all when none is named");
    get->add_flag("--json", *json, "for scripts");
    get->footer(_help());
    get->callback([&global, uri, words, json] { _get(global, *uri, *words, *json); });

    CLI::App *set = app.add_subcommand("set", "write parameters by name");
    set->add_option("URI", *uri, "camera or recording; \"\" is the first camera")->required();
    set->add_option("NAME=VALUE", *words, "what to set, in this order, as one batch")->required();
    set->footer(_help());
    set->callback([&global, uri, words] { _set(global, *uri, *words); });
}
