// Runs the built ostrel as a user would: in a scratch directory of real
// files, standard input from a file, standard output and error captured
// byte for byte, and the exit status as the shell sees it.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

namespace ostrel_test {

struct RunResult {
    int status = -1;  // as the shell sees it: -1 from main is 255
    std::string out;
    std::string err;
    long peakKb = 0;  // the program's largest resident size
};

// A run that takes longer than this is ended by SIGALRM: a hang fails its
// test instead of the whole suite. Far above what any run here needs, also
// under the sanitizers.
constexpr unsigned kRunDeadlineSeconds = 120;

struct RunOptions {
    std::string input;              // standard input
    std::string locale = "C";       // LC_ALL of the run
    bool unprivileged = false;      // as an ordinary user, so that file modes bite
    std::string inputFile = "";     // this file as standard input instead of `input`
    std::string stdoutPath = "";    // standard output goes there ("/dev/full") instead of being kept
    bool stdoutReaderGone = false;  // standard output is a pipe whose reader has gone away
    rlim_t fileSizeLimit = RLIM_INFINITY;      // RLIMIT_FSIZE of the run
    rlim_t addressSpaceLimit = RLIM_INFINITY;  // RLIMIT_AS, where no sanitizer needs the room
    unsigned deadlineSeconds = kRunDeadlineSeconds;
};

// Sanitizers reserve far more address space than any limit a test would set.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Exit status of a child that could not start the program.
constexpr int kCouldNotStart = 127;

// In a forked child: becomes the program with these arguments.
[[noreturn]] inline void ExecProgram(const std::vector<std::string>& args)
{
    std::vector<char*> argv{const_cast<char*>(OSTREL_PROGRAM)};
    for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(OSTREL_PROGRAM, argv.data());
    _exit(kCouldNotStart);
}

class Sandbox {
public:
    Sandbox()
    {
        char pattern[] = "/tmp/ostrel-cli-XXXXXX";
        _root = mkdtemp(pattern);
        work = _root + "/work";
        mkdir(work.c_str(), 0777);
        // Open for an unprivileged run as well.
        chmod(_root.c_str(), 0777);
        chmod(work.c_str(), 0777);
    }
    ~Sandbox() { std::system(("rm -rf '" + _root + "'").c_str()); }
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    std::string Path(const std::string& name) const { return work + "/" + name; }

    void Put(const std::string& name, const std::string& bytes, mode_t mode = 0666) const
    {
        const std::string path = Path(name);
        for (size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
            const std::string dir = Path(name.substr(0, slash));
            mkdir(dir.c_str(), 0777);
            chmod(dir.c_str(), 0777);
        }
        std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
        chmod(path.c_str(), mode);
    }

    std::string Get(const std::string& name) const
    {
        std::ifstream in(Path(name), std::ios::binary);
        std::ostringstream all;
        all << in.rdbuf();
        return all.str();
    }

    // Sets a file's modification time far into the past.
    void Age(const std::string& name) const
    {
        const utimbuf old{1000000000, 1000000000};
        utime(Path(name).c_str(), &old);
    }
    time_t ModTime(const std::string& name) const
    {
        struct stat status {};
        stat(Path(name).c_str(), &status);
        return status.st_mtime;
    }

    RunResult Run(const std::vector<std::string>& args, const RunOptions& options = {}) const
    {
        const std::string in = _root + "/stdin", out = _root + "/stdout", err = _root + "/stderr";
        std::ofstream(in, std::ios::binary | std::ios::trunc) << options.input;
        int gone[2] = {-1, -1};
        if (options.stdoutReaderGone) {
            if (pipe(gone) != 0)
                return RunResult{};
            close(gone[0]);  // gone before the run starts, so every write meets it
        }
        const pid_t child = fork();
        if (child == 0) {
            if (chdir(work.c_str()) != 0)
                _exit(kCouldNotStart);
            const int fdIn = open(options.inputFile.empty() ? in.c_str() : options.inputFile.c_str(), O_RDONLY);
            int fdOut = open(options.stdoutPath.empty() ? out.c_str() : options.stdoutPath.c_str(),
                             O_WRONLY | O_CREAT | O_TRUNC, 0666);
            if (options.stdoutReaderGone)
                fdOut = gone[1];
            const int fdErr = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
            if (fdIn < 0 || fdOut < 0 || fdErr < 0)
                _exit(kCouldNotStart);
            dup2(fdIn, 0);
            dup2(fdOut, 1);
            dup2(fdErr, 2);
            setenv("LC_ALL", options.locale.c_str(), 1);
            alarm(options.deadlineSeconds);
            const rlimit fileSize = {options.fileSizeLimit, options.fileSizeLimit};
            const rlimit addressSpace = {options.addressSpaceLimit, options.addressSpaceLimit};
            if ((options.fileSizeLimit != RLIM_INFINITY && setrlimit(RLIMIT_FSIZE, &fileSize) != 0) ||
                (options.addressSpaceLimit != RLIM_INFINITY && !kSanitized &&
                 setrlimit(RLIMIT_AS, &addressSpace) != 0))
                _exit(kCouldNotStart);
            if (options.unprivileged && geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
                _exit(kCouldNotStart);
            ExecProgram(args);
        }
        if (options.stdoutReaderGone)
            close(gone[1]);
        int status = 0;
        struct rusage usage {};
        wait4(child, &status, 0, &usage);
        RunResult result;
        result.peakKb = usage.ru_maxrss;
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.out = Slurp(out);
        result.err = Slurp(err);
        return result;
    }

    std::string work;

private:
    static std::string Slurp(const std::string& path)
    {
        std::ifstream file(path, std::ios::binary);
        std::ostringstream all;
        all << file.rdbuf();
        return all.str();
    }

    std::string _root;
};

// Readable rendering of bytes for failure messages.
inline std::string Visible(const std::string& bytes)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : bytes) {
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

// Text in the tool's wide-unit layout: four bytes a unit, low byte first.
template <class Units32 = std::initializer_list<uint32_t>>
std::string Units(const Units32& units)
{
    std::string bytes;
    for (uint32_t u : units)
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>((u >> shift) & 0xFF);
    return bytes;
}

}  // namespace ostrel_test
