// Readers for the fields of the simulator's JSON descriptions: the machine file and the
// controllers in it. Each names the field it reads by its path ("drives[0].words.80",
// "phys[1].attached") and, when the field is wrong, returns false with error set to
// "<path>: <what is wrong>". A field that is absent is left as it was.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace sim {

// Sets error to "<where>: <what>" (only <what> when where is the top of the description) and
// returns false.
bool fail(std::string& error, const std::string& where, const std::string& what);

// The path of key inside where ("phys[0]" and "drive" give "phys[0].drive").
std::string field_path(const std::string& where, const std::string& key);

// An object whose keys are all allowed; "comment" is allowed everywhere.
bool check_keys(const nlohmann::json& object, const std::string& where,
                const std::set<std::string>& allowed, std::string& error);

// How a value that is negative, or not a number at all, is refused.
enum class NumberRefusal {
    Separate, // "must not be negative" for a negative integer, "must be a number" for the rest
    Joined,   // "must be a number that is not negative" for both
};

// A number given as a JSON integer or as a text of decimal or "0x" hexadecimal digits ("31",
// "0x1F"), no larger than maximum.
bool read_number(const nlohmann::json& value, const std::string& where, std::uint64_t maximum,
                 std::uint64_t& out, std::string& error,
                 NumberRefusal refusal = NumberRefusal::Separate);

// An array of such numbers, each no larger than maximum and named "<where>[i]". The caller has
// checked that value is an array.
bool read_numbers(const nlohmann::json& value, const std::string& where, std::uint64_t maximum,
                  std::vector<std::uint64_t>& out, std::string& error,
                  NumberRefusal refusal = NumberRefusal::Separate);

// object[key], if given: a number that fits in out (a register, a count, an identifier).
template <typename T>
bool read_field(const nlohmann::json& object, const char* key, const std::string& where, T& out,
                std::string& error, NumberRefusal refusal = NumberRefusal::Separate) {
    if (!object.contains(key)) {
        return true;
    }
    std::uint64_t value = 0;
    if (!read_number(object[key], field_path(where, key), static_cast<T>(~T{0}), value, error,
                     refusal)) {
        return false;
    }
    out = static_cast<T>(value);
    return true;
}

// object[key], if given: true or false.
bool read_bool(const nlohmann::json& object, const char* key, const std::string& where, bool& out,
               std::string& error);

// object[key], if given: a text.
bool read_text(const nlohmann::json& object, const char* key, const std::string& where,
               std::string& out, std::string& error);

} // namespace sim
