// Where a program writes a result: one way for every file the tools and the driver write.
//
// - "-" is standard output: written straight through, every failure seen (a full disk, a
//   closed pipe, a closed descriptor).
// - A regular file, or a name not taken yet, is written under a temporary name in the same
//   directory and renamed over the name only when all of it is written and synced, with the
//   replaced file's mode kept: a reader sees the old file or the new one, never half of one.
// - A symbolic link is followed (up to 40 steps) and its target replaced so; the link stays.
// - Anything else that exists (a device node, a FIFO, a socket, a directory) is refused when
//   the file is opened, before any work is done: a node under /dev is never replaced by a file.
// - With TExisting::Refuse (backups) nothing that exists is replaced, not even a link.
// - A stream written over a long run (the driver's JSON lines) is no different: the name holds
//   the old file until the run commits. What is to be followed live goes to standard output.
//
// Example:
//   COutputFile out;
//   std::string error;
//   if (!out.Open(path, COutputFile::TExisting::Replace, &error)) return Fail(error);
//   ... long work ...
//   out.Stream() << result;
//   if (!out.Commit(&error)) return Fail(error);   // "cannot write 'x.json': No space left..."
//
// Messages name the path escaped and cut (QuotedText). SIGPIPE must be ignored by the program
// for a closed pipe to be reported rather than end it.
#pragma once

#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

class COutputFile {
public:
    enum class TExisting { Replace, Refuse };

    COutputFile();
    ~COutputFile();  // an uncommitted temporary is removed; the named file is left as it was
    COutputFile(const COutputFile&) = delete;
    COutputFile& operator=(const COutputFile&) = delete;

    // Checks `path` and, for a file, creates the temporary beside it. False with `error`, one
    // line: "cannot write 'PATH': why".
    bool Open(const std::string& path, TExisting existing, std::string* error);
    // Appends; false once any write failed (later writes are dropped).
    bool Write(std::string_view data);
    // The same, as a stream (buffered; Commit flushes it).
    std::ostream& Stream() { return m_stream; }
    // Flushes and, for a file, syncs it and renames it into place. False with `error` when
    // anything written was lost; the temporary is then removed.
    bool Commit(std::string* error);
    // Drops what was written: the temporary is removed.
    void Discard();

    bool StandardOutput() const { return m_standardOutput; }
    bool Failed() const { return m_errno != 0; }
    int Error() const { return m_errno; }  // errno of the first failure, 0 for none
    // 'PATH' (quoted, escaped) or "standard output", for messages.
    std::string Name() const;
    // "cannot write NAME: why" for the first failure.
    std::string FailureMessage() const;

    // A closed standard descriptor (0, 1, 2) is given /dev/null opened the wrong way round, so
    // that no file opened later takes its number and writes to it fail with EBADF as they
    // would have. Call first thing in main.
    static void GuardStandardDescriptors();

private:
    class CBuffer final : public std::streambuf {
    public:
        explicit CBuffer(COutputFile& owner) : m_owner(owner) { setp(m_data, m_data + sizeof m_data); }

    protected:
        int_type overflow(int_type c) override;
        int sync() override;
        std::streamsize xsputn(const char* s, std::streamsize n) override;

    private:
        bool Drain();
        COutputFile& m_owner;
        char m_data[16384];
    };

    bool WriteAll(const char* data, size_t size);
    void RemoveTemporary();

    CBuffer m_buffer;
    std::ostream m_stream;
    std::string m_path;       // as given
    std::string m_target;     // the file renamed over (a link's target)
    std::string m_temporary;  // empty once renamed or removed
    int m_fd = -1;
    bool m_standardOutput = false;
    bool m_refuseExisting = false;
    int m_errno = 0;          // the first failure
};
