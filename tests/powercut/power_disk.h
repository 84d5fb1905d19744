// A disk of a test's own whose power can be cut: a file system in a file, which is
// stopped with nothing written that was not on the disk, and mounted again.
//
// Mounts are seen by this process and its children only, and go with them.
#ifndef TESTS_POWERCUT_POWER_DISK_H
#define TESTS_POWERCUT_POWER_DISK_H

#include "tests/support/tempdir.h"

#include <random>
#include <string>
#include <sys/types.h>

// Cuts of each case: KESTRO_POWER_CUTS, else 10.
int power_cuts();

// Whether to go on with cut 1, 2, ...: beyond their number as long as they tell nothing
// (on a slow machine a few may hit nothing), but not for ever.
bool another_cut(int cut, bool telling);

class power_disk {
  public:
    power_disk();
    ~power_disk();
    power_disk(const power_disk &) = delete;
    power_disk &operator=(const power_disk &) = delete;

    // Why there is no such disk here; empty when there is one.
    const std::string &problem() const
    {
        return problem_;
    }
    // A name on the disk.
    std::string file(const std::string &name) const
    {
        return mounted_ + "/" + name;
    }

    // Writes some of what is in memory to the disk, in no order: pages of files here
    // and there, with or without what the file system knows of them.
    void write_back_some(std::mt19937 &random) const;

    // Brings all to the disk.
    void write_back_all() const;

    // Takes the power away.  Programs that are still there get errors.
    void cut();

    // The next boot, when nobody has the disk open any more: mounted again, with the
    // options that are this boot's turn and another boot id.
    void boot();

  private:
    bool mount_it();

    tempdir dir_;
    std::string image_ = dir_.file("image");
    std::string mounted_ = dir_.file("disk");
    std::string problem_;
    int boots_ = 0;
};

#endif
