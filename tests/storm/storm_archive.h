// Keeps all files of a log whose writer removes old ones, so that in the end none is missing.  A
// file that is open has its bytes whoever removes it, however full the disk is.
#ifndef TESTS_STORM_STORM_ARCHIVE_H
#define TESTS_STORM_STORM_ARCHIVE_H

#include <atomic>
#include <map>
#include <string>
#include <thread>

class storm_archive {
  public:
    // Looks at the folder again and again, from now on.
    explicit storm_archive(std::string log);
    ~storm_archive();
    storm_archive(const storm_archive &) = delete;
    storm_archive &operator=(const storm_archive &) = delete;

    // Looks no more, and copies what there was to a folder.
    void copy_to(const std::string &folder);

  private:
    void look();
    void end();

    std::string log_;
    std::map<std::string, int> files_; // descriptors by name
    std::atomic<bool> ended_{false};
    std::thread thread_; // last: it begins when all else is there
};

#endif
