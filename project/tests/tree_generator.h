#pragma once

// Trees whose names and shapes break path code, drawn from a seed or from a fuzzer's input, and
// an exact description of a tree to compare two of them.

#include <zo/project/archive.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace zo::project::test {

// The choices a tree is made of: from a seeded generator, or from a fuzzer's input (zero once
// it is used up).
class Choices {
public:
    explicit Choices(uint32_t seed)
        : _random(seed)
    {
    }
    Choices(const uint8_t* data, size_t size)
        : _data(data)
        , _size(size)
    {
    }

    // A number below bound.
    unsigned below(unsigned bound);

private:
    std::mt19937 _random;
    const uint8_t* _data = nullptr;
    size_t _size = 0;
};

// Makes the directory root and fills it: names sharing prefixes followed by "/", "-" or ".",
// names that are prefixes of each other, dot files, blanks, newlines, composed forms, long
// names and a path deeper than PATH_MAX; empty directories, symbolic links (none leading out),
// hard links, varied modes, whole-second times. Unless the tree is to be portable (the answer),
// names and link targets may also hold bytes that are not UTF-8, decomposed forms and
// backslashes.
bool makeTree(const std::string& root, Choices& choices);

// What describe tells of an entry besides its kind, path, and a file's content (a digest when it
// is long) or a link's target: a file's or directory's mode and time, and for a file with further
// names the first of them.
enum Detail { Modes = 1, Times = 2, HardLinks = 4, Everything = Modes | Times | HardLinks };

// One line per entry below root, in a fixed order, read through descriptors.
std::vector<std::string> describe(const std::string& root, int details);

// Every format, the directory too.
extern const ArchiveFormat kPackFormats[9];

// Packs source (as makeTree made it, portable or not) into work/packed.<name>, unpacks that into
// work/unpacked.<name> (for a tar once more, over what it made) and tells what went wrong: a
// tree that did not come back exactly, a refusal a portable tree or a tar must not meet, or an
// archive left by a refused pack; empty when nothing did. Errors of the unpacking propagate.
std::string roundTrip(
    const std::string& source, const std::string& work, ArchiveFormat format, bool portable);

// Removes everything below root, however deep.
void removeContents(const std::string& root);

} // namespace zo::project::test
