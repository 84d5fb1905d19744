// A temporary directory of a test's own, removed with all it holds, and small
// helpers for whole files.
#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

class tempdir {
  public:
    tempdir()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kestro-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed: " + name);
        path_ = name;
    }
    ~tempdir()
    {
        std::error_code ignored; // a leftover directory must not fail the test
        std::filesystem::remove_all(path_, ignored);
    }
    tempdir(const tempdir &) = delete;
    tempdir &operator=(const tempdir &) = delete;

    const std::string &path() const
    {
        return path_;
    }
    std::string file(const std::string &name) const
    {
        return path_ + "/" + name;
    }

  private:
    std::string path_;
};

inline std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string &path, const std::string &bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush())
        throw std::runtime_error("cannot write " + path);
}

#endif
