#pragma once

#include <map>
#include <string>

#define REGTOOL_EXPORT __attribute__((visibility("default")))

// One product record of the registration tool: the file GUID.ini in the user's or the
// system's product database. Strings are in the local 8-bit encoding.
class REGTOOL_EXPORT ProductRecord
{
public:
    ProductRecord(std::string guid, bool peruser);
    ~ProductRecord();

    // False for a record that is missing, unreadable or not INI text; the values held
    // in memory are then left as they were.
    bool load();
    bool isExist();
    std::string getValue(std::string key);
    void setValue(std::string key, std::string value);
    // Replaces the file whole (temporary file, then rename); false leaves it untouched.
    bool save();

    std::string filePath() const { return path_; }

    static std::string userDbDir();
    static std::string systemDbDir();

private:
    std::string guid_;
    std::string path_;
    std::map<std::string, std::string> values_;
};

extern "C" {
// Creates or refreshes the current record of a product; 0 on success, else an errno value.
REGTOOL_EXPORT int registerProduct(const char* guid, const char* productName, const char* version,
                                   const char* mediaId, const char* productId, const char* updateId,
                                   int peruser);
// Sets one value of an existing or new record; 0 on success, else an errno value.
REGTOOL_EXPORT int setValue(const char* guid, const char* key, const char* value, int peruser);
}
