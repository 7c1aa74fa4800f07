# Run by each build: cmake -D SOURCE=root -D VERSION=x.y.z -D OUTPUT=file -P BuildInfo.cmake
# Writes the source of Backup/Util/BuildInfo.h. A file that would come out the same is left alone, so that
# nothing is built again: it changes with the revision, with the first change to the sources and with the day.

# Honours SOURCE_DATE_EPOCH.
string(TIMESTAMP DATE "%Y-%m-%d" UTC)
string(TIMESTAMP YEAR "%Y" UTC)

# Only a repository of this tree itself: an unpacked archive may lie inside another one.
set(REVISION "unknown")
find_program(GIT git)
if(GIT AND EXISTS "${SOURCE}/.git")
  execute_process(COMMAND "${GIT}" rev-parse --short=12 HEAD WORKING_DIRECTORY "${SOURCE}"
    RESULT_VARIABLE FAILED OUTPUT_VARIABLE HEAD OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  # Does not lock the index, which would disturb a commit in another process.
  execute_process(COMMAND "${GIT}" --no-optional-locks status --porcelain --untracked-files=no
    WORKING_DIRECTORY "${SOURCE}" OUTPUT_VARIABLE CHANGES ERROR_QUIET)
  if(NOT FAILED)
    set(REVISION "${HEAD}")
    if(CHANGES)
      string(APPEND REVISION "-dirty")
    endif()
  endif()
endif()

configure_file("${SOURCE}/Backup/Util/BuildInfo.cpp.in" "${OUTPUT}" @ONLY)
