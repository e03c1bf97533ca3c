#include <quma/SysUtils.h>

namespace quma {

EListError EListError::OutOfBounds(Integer index) { return EListError(Format(SListIndexError, index), index); }

}  // namespace quma
