#include "agent/Store/SnapshotWriter.h"

#include "agent/Store/Hex.h"

#include "Krt/Exception/Raise.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace Agent {

using Krt::YString;

namespace {

// Ids sort by time; the random part keeps runs apart that begin in the same millisecond.
std::string MakeId()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
    const std::time_t seconds = milliseconds / 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y%m%dT%H%M%S", &utc);
    std::snprintf(text + length, sizeof text - length, ".%03dZ-", static_cast<int>(milliseconds % 1000));
    return text + RandomHex(4);
}

} // namespace

SnapshotWriter::SnapshotWriter(StoreSession& session, const SnapshotHeader& header)
    : m_session(session), m_id(MakeId()), m_file(session.CreateTemporary())
{
    try {
        m_compressor.Begin(m_file.handle);
        WriteLine(header, m_line);
        AppendLine();
    } catch (...) {
        m_session.Remove(m_file);
        throw;
    }
}

SnapshotWriter::~SnapshotWriter()
{
    if (!m_finished)
        m_session.Remove(m_file);
}

void SnapshotWriter::Add(std::string_view record, const EntryFacts& facts)
{
    m_line.clear();
    WriteLine(record, facts, m_line);
    KRT_RAISE_UNLESS(m_line.size() <= SnapshotLineLimit, Krt::ErrorCode::InvalidArgument,
                     "The record takes " << m_line.size() << " bytes; a snapshot takes " << SnapshotLineLimit
                                         << " at most");
    AppendLine();
    ++m_entries;
}

std::string SnapshotWriter::Finish(unsigned long long bytes, unsigned long long failed)
{
    m_line.clear();
    WriteLine(SnapshotTrailer{m_entries, bytes, failed, m_hash.End()}, m_line);
    StoreError::Guard([&] {
        m_compressor.EndFrame();
        const TrailerLocator locator = MakeTrailerLocator(m_compressor.GetWritten());
        m_compressor.WriteFrame(m_line.data(), m_line.size());
        m_compressor.Write(locator.data(), locator.size());
        m_session.PlaceSnapshot(m_file, YString(m_id.c_str()));
    });
    m_finished = true;
    return m_id;
}

void SnapshotWriter::AppendLine()
{
    m_hash.Add(m_line.data(), m_line.size());
    StoreError::Guard([&] { m_compressor.Append(m_line.data(), m_line.size()); });
}

} // namespace Agent
