// Applies operations of configuration, in the form of line_driver.h.
#include "document.h"
#include "support/line_driver.h"

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace line_driver;

std::string in_json(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        char escape[8];
        if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\' || c == 0x7f) {
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + '"';
}

std::string number(double value) {
    if (std::isnan(value))
        return "nan";
    if (std::isinf(value))
        return value < 0 ? "-inf" : "inf";
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

std::string time(const qorConfigTime& value) {
    char text[80] = "";
    int at = 0;
    const auto add = [&](const char* format, auto... values) {
        at += std::snprintf(text + at, sizeof text - static_cast<std::size_t>(at), format, int{values}...);
    };
    if (value.has_date)
        add("%04d-%02d-%02d", value.year, value.month, value.day);
    if (value.has_date && value.has_time)
        add("T");
    if (value.has_time)
        add("%02d:%02d:%02d.%09d", value.hour, value.minute, value.second, static_cast<int>(value.nanosecond));
    if (value.has_offset)
        add("%+04d", value.offset);
    return text;
}

// The values in the form of toml-test's cases.
std::string dump(const qorConfig& at) {
    qorConfigValue value;
    const auto scalar = [](const char* type, const std::string& text) {
        return std::string("{\"type\":\"") + type + "\",\"value\":" + in_json(text) + "}";
    };
    std::string out;
    switch (at.Kind()) {
    case qorConfigKind::logical:
        return scalar("bool", *at.Find<bool>() ? "true" : "false");
    case qorConfigKind::integer:
        return scalar("integer", std::to_string(*at.Find<int64>()));
    case qorConfigKind::number:
        return scalar("float", number(*at.Find<double>()));
    case qorConfigKind::text:
        return scalar("string", std::string(*at.Find<std::string_view>()));
    case qorConfigKind::time:
        return scalar("time", time(*at.Find<qorConfigTime>()));
    case qorConfigKind::array:
        for (const qorConfig& each : at)
            out += (out.empty() ? "" : ",") + dump(each);
        return "[" + out + "]";
    case qorConfigKind::table:
        for (const qorString& name : at.Names())
            out += (out.empty() ? "" : ",") + in_json(name) + ":" + dump(at[std::string_view(name)]);
        return "{" + out + "}";
    case qorConfigKind::none:
        break;
    }
    return "null";
}

zetSmartPointer<IQORConfigDocument> document;
zetSmartPointer<IQORConfigFile> file;
IQORConfigNode* node = nullptr;

bool use_file(bool is_open) {
    node = is_open ? *file : nullptr;
    return is_open;
}

const std::map<std::string, operation> operations = {
    {"parse",
     [](const words& w, std::string&) {
         document.AttachNew(config::make_document());
         node = *document;
         return document->Parse("text", w[1].data(), w[1].size());
     }},
    {"text",
     [](const words&, std::string& out) {
         out = " " + hexadecimal(document->GetText());
         return true;
     }},
    {"dump",
     [](const words&, std::string& out) {
         out = " " + hexadecimal(dump(qorConfig(node)));
         return true;
     }},
    {"literal", [](const words& w, std::string&) { return node->SetLiteral(w[1].c_str(), w[2].c_str()); }},
    {"string", [](const words& w, std::string&) { return qorConfig(node).Set(w[1].c_str(), w[2]); }},
    {"remove", [](const words& w, std::string&) { return node->Remove(w[1].c_str()); }},
    {"kind",
     [](const words& w, std::string& out) {
         out = " " + std::to_string(static_cast<uint32>(qorConfig(node, w[1].c_str()).Kind()));
         return true;
     }},
    {"origin",
     [](const words& w, std::string& out) {
         qorConfigOrigin origin;
         if (!node->GetOrigin(w[1].c_str(), origin))
             return false;
         out = " " + hexadecimal(origin.file) + " " + std::to_string(origin.line) + " " + std::to_string(origin.column);
         return true;
     }},
    {"open",
     [](const words& w, std::string&) { return use_file(qorOpenConfigFileAbsolute(w[1].c_str(), file.Out())); }},
    {"create",
     [](const words& w, std::string&) { return use_file(qorCreateConfigFileAbsolute(w[1].c_str(), file.Out())); }},
    {"open-system",
     [](const words& w, std::string&) { return use_file(qorOpenSystemConfigFile(w[1].c_str(), file.Out())); }},
    {"create-system",
     [](const words& w, std::string&) { return use_file(qorCreateSystemConfigFile(w[1].c_str(), file.Out())); }},
    {"open-user",
     [](const words& w, std::string&) { return use_file(qorOpenUserConfigFile(w[1].c_str(), file.Out())); }},
    {"create-user",
     [](const words& w, std::string&) { return use_file(qorCreateUserConfigFile(w[1].c_str(), file.Out())); }},
    {"init-user", [](const words& w,
                     std::string&) { return use_file(qorInitUserConfigFile(w[1].c_str(), w[2].c_str(), file.Out())); }},
    {"path",
     [](const words&, std::string& out) {
         qorString path;
         file->GetPath(path);
         out = " " + hexadecimal(path);
         return true;
     }},
    {"save", [](const words&, std::string&) { return file->Save(); }},
    {"reload", [](const words&, std::string&) { return file->Reload(); }},
};

} // namespace

int main() { return apply_lines(operations); }
