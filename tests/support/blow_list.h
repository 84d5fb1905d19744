// The blows that an operation is to get, and which of them it has had: in a file, where one is
// named, so that several processes share them, and a later one goes on behind them.
//
// KESTRO_SHARE=I/N has this process deal the Ith of N shares alone, from 1.
#ifndef TESTS_SUPPORT_BLOW_LIST_H
#define TESTS_SUPPORT_BLOW_LIST_H

#include <cstddef>
#include <string>
#include <vector>

class blow_list {
  public:
    // file: empty for none.  The file's lines are "KIND<tab>OPERATION<tab>NAME".
    blow_list(std::string file, std::string operation);

    // Names of blows, each once, without tabs and ends of lines.  Where the file has a plan of this
    // operation, that one holds.  places ("377 system calls") and all are for the summary.
    void plan(const std::string &places, size_t all, const std::vector<std::string> &names);

    // Whether all of a plan in the file were dealt.
    bool complete() const;

    // Those of this process's share that were not dealt, in the order of the plan.
    std::vector<std::string> due() const;

    // A blow has come through; reached: the operation made the call, or asked the question.
    void note(const std::string &name, bool reached);

    // "NAME: 377 system calls, 1874 of 1874 blows, 2 not reached", whoever dealt them.
    std::string summary() const;

  private:
    void add(const std::string &lines);
    std::vector<std::string> kept(const std::string &kind) const;

    std::string file_;
    std::string operation_;
    std::string lines_; // where there is no file
};

#endif
