#pragma once

#include "Krt/Export.h"

namespace Krt::JSON {

class YObject;

/// The interface of classes with a JSON form.
class KRT_API IJSON
{
public:
    virtual ~IJSON() = default;
    /// Returns the JSON form as a new object.
    virtual YObject ToJSON() const = 0;
    /// Fills this object. After a failure the members read before it are set.
    virtual void FromJSON(const YObject& json) = 0;
};

} // namespace Krt::JSON
