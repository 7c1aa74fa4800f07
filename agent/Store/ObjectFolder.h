// The folder of a store's objects: where the object with an address stands. 256 folders, named by the first
// byte of the address, keep each of them small.
#pragma once

#include "agent/Store/Address.h"

#include "Krt/File/YDirectory.h"

#include <map>

namespace Agent {

class ObjectFolder
{
public:
    explicit ObjectFolder(Krt::File::YDirectory directory) : m_directory(std::move(directory)) {}

    /// An object that stands here is whole, and its data are on disk.
    bool Has(const Address& address) const;
    /// For reading. Raises the operating system's error, ENOENT for an unknown address.
    Krt::Util::YUnxHandle Open(const Address& address) const;
    /// Moves files here whose data are on disk, by the addresses of their contents. An object that is already
    /// here has the same content, so it may be replaced. Raises the operating system's error, also where a
    /// link stands for a folder: whoever may write to the store leads no file out of it.
    void Place(const Krt::File::YDirectory& from, const std::map<Address, Krt::YString>& files) const;

private:
    Krt::File::YDirectory OpenFolder(const Krt::YString& name) const;

    Krt::File::YDirectory m_directory;
};

} // namespace Agent
