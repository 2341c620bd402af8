#include "sim/json_fields.hpp"

namespace sim {

using nlohmann::json;

bool fail(std::string& error, const std::string& where, const std::string& what) {
    error = where.empty() ? what : where + ": " + what;
    return false;
}

std::string field_path(const std::string& where, const std::string& key) {
    return where.empty() ? key : where + "." + key;
}

bool check_keys(const json& object, const std::string& where, const std::set<std::string>& allowed,
                std::string& error) {
    if (!object.is_object()) {
        return fail(error, where, "must be an object");
    }
    for (const auto& item : object.items()) {
        if (item.key() != "comment" && allowed.count(item.key()) == 0) {
            return fail(error, where, "unknown key \"" + item.key() + "\"");
        }
    }
    return true;
}

bool read_number(const json& value, const std::string& where, std::uint64_t maximum,
                 std::uint64_t& out, std::string& error, NumberRefusal refusal) {
    if (value.is_number_unsigned()) {
        out = value.get<std::uint64_t>();
    } else if (value.is_string()) {
        const std::string text = value.get<std::string>();
        const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
        const std::string digits = hex ? text.substr(2) : text;
        if (digits.empty() || digits.size() > 16 ||
            digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") !=
                std::string::npos) {
            return fail(error, where, "\"" + text + "\" is not a number");
        }
        out = std::stoull(digits, nullptr, hex ? 16 : 10);
    } else if (refusal == NumberRefusal::Joined) {
        return fail(error, where, "must be a number that is not negative");
    } else if (value.is_number_integer()) {
        return fail(error, where, "must not be negative");
    } else {
        return fail(error, where, "must be a number");
    }
    if (out > maximum) {
        return fail(error, where, std::to_string(out) + " is above " + std::to_string(maximum));
    }
    return true;
}

bool read_numbers(const json& value, const std::string& where, std::uint64_t maximum,
                  std::vector<std::uint64_t>& out, std::string& error, NumberRefusal refusal) {
    out.clear();
    for (std::size_t i = 0; i < value.size(); ++i) {
        std::uint64_t number = 0;
        if (!read_number(value[i], where + "[" + std::to_string(i) + "]", maximum, number, error,
                         refusal)) {
            return false;
        }
        out.push_back(number);
    }
    return true;
}

bool read_bool(const json& object, const char* key, const std::string& where, bool& out,
               std::string& error) {
    if (!object.contains(key)) {
        return true;
    }
    if (!object[key].is_boolean()) {
        return fail(error, field_path(where, key), "must be true or false");
    }
    out = object[key].get<bool>();
    return true;
}

bool read_text(const json& object, const char* key, const std::string& where, std::string& out,
               std::string& error) {
    if (!object.contains(key)) {
        return true;
    }
    if (!object[key].is_string()) {
        return fail(error, field_path(where, key), "must be a text");
    }
    out = object[key].get<std::string>();
    return true;
}

} // namespace sim
