// The interface of classes with a JSON form.
#pragma once

#include "Krt/Export.h"

namespace Krt::JSON {

class YObject;

class KRT_API IJSON
{
public:
    virtual ~IJSON() = default;
    /// The form as a new object.
    virtual YObject ToJSON() const = 0;
    /// Fills this object; a failure leaves what was read so far.
    virtual void FromJSON(const YObject& json) = 0;
};

} // namespace Krt::JSON
