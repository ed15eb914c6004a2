// KqEnvBlock.h: an environment block, a sorted set of name/value pairs.
//
// CEnvBlock holds environment variables, name to value, sorted byte-wise by
// name and unique by name. It is filled from the running process's
// environment, from name=value lines (in memory or in a file) or from a
// serialised block, and written out as a serialised block: each entry as
// "name=value" and a NUL, in ascending name order, then one more NUL (the
// form in which one process hands a whole environment to another).
//
// Names and values are never empty and are stored exactly as received
// (nothing trimmed, quoted or case-folded). Every way of adding goes through
// SplitAdd/SetValue, so a later entry for a name replaces an earlier one and
// a line without a usable name or value is skipped. There are no error
// results: unreadable files and empty inputs simply add nothing.
//
// Thread-safety: none; one thread uses a block at a time. It owns no OS
// object, takes no lock and prints nothing. Loading the process environment
// reads it unguarded: no thread may change the environment meanwhile.
#pragma once

#include "KqExport.h"

#include <map>
#include <string>

namespace KQ {

class KQ_API CEnvBlock {
public:
    // Empty; with loadEnvironment, filled from the process environment
    // (Deserialize(environ)). A null environ (cleared environment) adds nothing.
    explicit CEnvBlock(bool loadEnvironment);
    // Filled from the name=value lines ('\n'-separated) of the file. The size
    // comes from stat() first and exactly that many bytes are read: a file
    // that cannot be opened or read whole, reports size 0 (pipes, /proc) or
    // shrank meanwhile adds nothing; one that grew is read up to the old size.
    // The text ends at its first NUL byte. A null fileName adds nothing.
    explicit CEnvBlock(const char* fileName);
    // Filled from the NUL-terminated name=value lines ('\n'-separated) at text.
    // A null text adds nothing.
    explicit CEnvBlock(unsigned char* text);
    ~CEnvBlock();

    // Creates the entry name or replaces its value. An empty name or value
    // does nothing (an existing entry is neither changed nor removed).
    void SetValue(const std::string& name, const std::string& value);
    // The value of name, or a copy of defaultValue when there is no such entry.
    std::string GetValue(const std::string& name, const std::string& defaultValue) const;
    // Removes the entry name if there is one; true in every case.
    bool RemoveItem(std::string name);
    // Removes all entries.
    void EmptyList();

    // Adds "name=value": the name is the text before the first '=', the value
    // everything after it (further '=' included). A line without '=', with
    // nothing before or after the first '=', or empty, adds nothing.
    void SplitAdd(const std::string& line);

    // Writes the serialised block to out, which the caller sizes: the sum over
    // the entries of name length + value length + 2, plus 1; an empty block
    // writes no byte at all. Names and values are copied up to a NUL they
    // may hold.
    void Serialize(char* out);
    // Adds each string of a null-terminated array of "name=value" strings, in
    // array order. A null array adds nothing.
    void Deserialize(char** list);
    // Adds each string of a serialised block, in block order, up to the empty
    // string that ends it; a block whose first byte is NUL (or a null block)
    // adds nothing. The block must be terminated that way.
    void Deserialize(char* block);
    // Adds each separator-delimited line of text, in order. The separator is
    // taken exactly: with '\n', a CR of a CR LF ending stays in the value.
    void Deserialize(std::string text, char separator);

private:
    std::map<std::string, std::string> m_List;
};

}  // namespace KQ
