#include "companion/Matrix.h"

// The instantiations the library hands across its interface.
template class ecMatrix<float>;
template class ecMatrix<double>;
template class ecLabeledMatrix<float>;
template class ecVBase<float>;
template class ecVector<float>;
