#pragma once

#include <zo/os.h>

#include <filesystem>
#include <fstream>
#include <string>

// A private directory for one fuzzing process, emptied before each input and removed at exit.
class WorkDir {
public:
    explicit WorkDir(const std::string& name)
        : path(std::filesystem::temp_directory_path()
            / (name + "_" + std::to_string(zo::os::getpid())))
    {
    }
    ~WorkDir() { std::filesystem::remove_all(path); }
    WorkDir(const WorkDir&) = delete;
    WorkDir& operator=(const WorkDir&) = delete;

    // Starts afresh with one file holding the input.
    void reset(const std::filesystem::path& file, const uint8_t* data, size_t size) const
    {
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
        std::ofstream(path / file, std::ios::binary)
            .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }

    const std::filesystem::path path;
};
