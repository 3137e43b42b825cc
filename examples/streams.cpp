// The README's reading and writing, as a program that ctest builds and runs: iostreams on a file,
// and a FILE* for C code.

#include <foundation/storage/vfs.hpp>
#include <foundation/storage/vfs/FileStream.hpp> // the iostreams are not in vfs.hpp

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

namespace vfs = foundation::storage::vfs;

int main()
{
    auto storage = std::make_shared<vfs::DefaultStorageSystem>();
    vfs::StorageSystemReference ref{storage};

    vfs::File notes(vfs::AbsoluteIRI{"mem://demo/notes.txt"}, ref);
    vfs::ofstream(notes, 0) << "first line\n";              // closed (and flushed) when it goes
    vfs::ifstream in(notes, 0);
    std::string line;
    std::getline(in, line);                                  // "first line"
    std::cout << line << "\n";

    FILE* out = vfs::openCFile(vfs::File(vfs::AbsoluteIRI{"mem://demo/report.csv"}, ref), "w");
    std::fprintf(out, "%s,%d\n", "answer", 42);          // any stdio function
    std::fflush(out);                                   // now in the storage file
    if (std::fclose(out) != 0)                          // writes out and closes the storage file
        std::perror("report.csv");                      // ENOSPC, EPERM, EFBIG or EIO
    std::cout << vfs::readAll(vfs::File(vfs::AbsoluteIRI{"mem://demo/report.csv"}, ref));
    return line == "first line" ? 0 : 1;
}
