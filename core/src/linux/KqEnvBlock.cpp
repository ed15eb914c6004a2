// KqEnvBlock.cpp: the environment block; reads environ and text files through
// stat and stdio (Linux).
#include "KqEnvBlock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace KQ {
namespace {

// Stores one entry under the block's rule: empty names and values add
// nothing, a present name gets the new value.
void StoreEntry(std::map<std::string, std::string>& list, std::string_view name, std::string_view value)
{
    if (name.empty() || value.empty()) {
        return;
    }
    list[std::string(name)].assign(value.data(), value.size());
}

// SplitAdd on a view, so that walking a large text or block makes no
// temporary copy of each line.
void AddLine(std::map<std::string, std::string>& list, std::string_view line)
{
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) {
        return;
    }
    StoreEntry(list, line.substr(0, equals), line.substr(equals + 1));
}

// Copies text up to its first NUL to out and returns the byte after it.
char* CopyString(char* out, const std::string& text)
{
    const size_t length = strlen(text.c_str());
    memcpy(out, text.c_str(), length);
    return out + length;
}

}  // namespace

CEnvBlock::CEnvBlock(bool loadEnvironment)
{
    if (loadEnvironment) {
        Deserialize(environ);
    }
}

CEnvBlock::CEnvBlock(const char* fileName)
{
    if (fileName == nullptr) {
        return;
    }
    struct stat info;
    const size_t size = stat(fileName, &info) == 0 && info.st_size > 0 ? static_cast<size_t>(info.st_size) : 0;
    FILE* file = fopen(fileName, "rb");
    if (file == nullptr) {
        return;
    }
    // The size is taken before reading, so a file that changes meanwhile is
    // read as it was (grown) or not at all (shrunk); calloc, not a vector, so
    // an absurd size fails quietly instead of throwing.
    char* buffer = static_cast<char*>(calloc(size + 1, 1));
    if (buffer != nullptr && fread(buffer, 1, size, file) == size) {
        Deserialize(std::string(buffer), '\n');
    }
    free(buffer);
    fclose(file);
}

CEnvBlock::CEnvBlock(unsigned char* text)
{
    if (text != nullptr) {
        Deserialize(std::string(reinterpret_cast<const char*>(text)), '\n');
    }
}

CEnvBlock::~CEnvBlock()
{
    EmptyList();
}

void CEnvBlock::SetValue(const std::string& name, const std::string& value)
{
    StoreEntry(m_List, name, value);
}

std::string CEnvBlock::GetValue(const std::string& name, const std::string& defaultValue) const
{
    const auto entry = m_List.find(name);
    return entry != m_List.end() ? entry->second : defaultValue;
}

bool CEnvBlock::RemoveItem(std::string name)
{
    m_List.erase(name);
    return true;
}

void CEnvBlock::EmptyList()
{
    m_List.clear();
}

void CEnvBlock::SplitAdd(const std::string& line)
{
    AddLine(m_List, line);
}

void CEnvBlock::Serialize(char* out)
{
    if (m_List.empty()) {
        return;
    }
    for (const auto& entry : m_List) {
        out = CopyString(out, entry.first);
        *out++ = '=';
        out = CopyString(out, entry.second);
        *out++ = '\0';
    }
    *out = '\0';
}

void CEnvBlock::Deserialize(char** list)
{
    if (list == nullptr) {
        return;
    }
    for (; *list != nullptr; ++list) {
        AddLine(m_List, *list);
    }
}

void CEnvBlock::Deserialize(char* block)
{
    if (block == nullptr) {
        return;
    }
    while (*block != '\0') {
        const std::string_view entry(block);
        AddLine(m_List, entry);
        block += entry.size() + 1;
    }
}

void CEnvBlock::Deserialize(std::string text, char separator)
{
    const std::string_view whole(text);
    size_t position = 0;
    while (position < whole.size()) {
        const size_t end = whole.find(separator, position);
        if (end == std::string_view::npos) {
            AddLine(m_List, whole.substr(position));
            break;
        }
        AddLine(m_List, whole.substr(position, end - position));
        position = end + 1;
    }
}

}  // namespace KQ
