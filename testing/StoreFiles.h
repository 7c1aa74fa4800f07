// The files of a store, read and written without the program.
#pragma once

#include "agent/Store/ObjectReader.h"
#include "agent/Store/ObjectWriter.h"
#include "agent/Store/SnapshotReader.h"
#include "agent/Store/SnapshotWriter.h"
#include "agent/Store/ZstdReader.h"
#include "agent/Store/ZstdWriter.h"

#include "Backup/File/YMetadataBase.h"

#include "Krt/File/File.h"
#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace Testing {

template <class Reader>
std::string ReadBlocks(Reader& reader)
{
    std::string bytes;
    for (auto block = reader.Next(); !block.empty(); block = reader.Next())
        bytes.append(reinterpret_cast<const char*>(block.data()), block.size());
    return bytes;
}

/// Writes a content in pieces of at most `piece` bytes.
inline Agent::Address WriteObject(Agent::ObjectWriter& writer, const std::string& content,
                                  std::size_t piece = 1 << 16)
{
    writer.Begin();
    for (std::size_t at = 0; at < content.size(); at += piece)
        writer.Append(content.data() + at, std::min(piece, content.size() - at));
    return writer.Finish();
}

/// Returns the text of a record as a snapshot stores it.
inline std::string TextOf(const Krt::JSON::YObject& record)
{
    std::string text;
    Krt::JSON::YValue::FromObject(record).StringifyTo(text);
    return text;
}

/// A run that fills a snapshot of the store.
struct StoreRun
{
    explicit StoreRun(const Agent::Store& store) : session(store) {}
    /// Stores the content with this entry; sets only the fields that depend on the content.
    Agent::Address Add(const std::string& content, Agent::SnapshotEntry entry = {})
    {
        entry.content = WriteObject(objects, content);
        Add(entry);
        return *entry.content;
    }

    void Add(const Agent::SnapshotEntry& entry) { snapshot.Add(TextOf(entry.record), entry); }

    Agent::StoreSession session;
    Agent::ObjectWriter objects{session};
    Agent::SnapshotWriter snapshot{session, Agent::SnapshotHeader()};
};

inline std::string ReadObject(const Agent::Store& store, const Agent::Address& address,
                              unsigned long long size)
{
    Agent::ObjectReader reader(store);
    reader.Open(address, size);
    return ReadBlocks(reader);
}

/// Returns the paths of the latest snapshot in its order, without the prefix `root`.
inline std::vector<std::string> StoredPaths(const std::string& store, const std::string& root)
{
    const Agent::Store opened = Agent::Store::Open(store);
    Agent::SnapshotReader reader(opened, opened.FindSnapshot("latest"));
    std::vector<std::string> paths;
    for (Agent::SnapshotEntry entry; reader.Next(entry);) {
        const auto metadata = Backup::File::YMetadataBase::ConstructFromJson(entry.record);
        const std::string path = metadata->GetFilePath(0).GetFilesystemPortion().Bytes();
        paths.push_back(path.starts_with(root) ? path.substr(root.size()) : path);
    }
    return paths;
}

/// Replaces a file by these bytes, compressed.
inline void WriteCompressed(const std::string& path, const std::string& bytes)
{
    std::filesystem::remove(path);
    const auto file = Krt::File::Open(Krt::File::YPath(path.c_str()), Krt::File::OpenNewForWriting);
    Agent::ZstdWriter writer;
    writer.Begin(file);
    writer.Append(bytes.data(), bytes.size());
    writer.EndFrame();
}

inline std::string ReadCompressed(const std::string& path)
{
    const auto file = Krt::File::Open(Krt::File::YPath(path.c_str()), Krt::File::OpenForReading);
    Agent::ZstdReader reader;
    reader.Begin(file, "test");
    return ReadBlocks(reader);
}

} // namespace Testing
