// Matrices and vectors: contiguous row-major storage, rows = channels, columns = slices.
#pragma once

#include "companion/Export.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <string>
#include <vector>

#include "companion/ObjectModel.h"

template <typename T>
class FILELIB_API ecMatrix {
public:
    ecMatrix() = default;
    // The two further sizes and the flag are accepted for interface compatibility; the matrix
    // has no row or column offsets and always owns zero-initialised storage.
    ecMatrix(long rows, long cols, long = 0, long = 0, bool = false) { resize(rows, cols, 0, 0); }
    virtual ~ecMatrix() = default;

    // Resizing to the current shape keeps the contents (readers resize on every block); any
    // other shape gives a zeroed matrix. Negative sizes give an empty matrix.
    void resize(long rows, long cols, long = 0, long = 0)
    {
        rows = std::max(rows, 0L);
        cols = std::max(cols, 0L);
        if (rows == m_rows && cols == m_cols)
            return;
        m_data.assign(static_cast<size_t>(rows) * static_cast<size_t>(cols), T());
        m_rows = rows;
        m_cols = cols;
        OnResize();
    }
    long nrow() const { return m_rows; }
    long ncol() const { return m_cols; }
    void zero() { std::fill(m_data.begin(), m_data.end(), T()); }
    T* operator[](long row) { return m_data.data() + static_cast<size_t>(row) * static_cast<size_t>(m_cols); }
    const T* operator[](long row) const
    {
        return m_data.data() + static_cast<size_t>(row) * static_cast<size_t>(m_cols);
    }
    T* data() { return m_data.data(); }
    const T* data() const { return m_data.data(); }

protected:
    virtual void OnResize() {}
    // Removes one row, keeping the others in order.
    void EraseRow(long row)
    {
        auto first = m_data.begin() + static_cast<std::ptrdiff_t>(row * m_cols);
        m_data.erase(first, first + m_cols);
        --m_rows;
    }
    // Rebuilds the rows in the order given (indices into the current rows).
    void PermuteRows(const std::vector<long>& order)
    {
        std::vector<T> out(m_data.size());
        for (size_t i = 0; i < order.size(); ++i)
            std::copy_n((*this)[order[i]], m_cols, out.data() + i * static_cast<size_t>(m_cols));
        m_data.swap(out);
    }

private:
    std::vector<T> m_data;
    long m_rows = 0;
    long m_cols = 0;
};

template <typename T>
class FILELIB_API ecLabeledMatrix : public ecMatrix<T> {
public:
    ecLabeledMatrix() = default;
    ecLabeledMatrix(long rows, long cols) : ecMatrix<T>(rows, cols) { m_rowStates.resize(rows > 0 ? rows : 0); }

    void SetRowLabeledState(int row, const ecLabeledState& state)
    {
        if (row >= 0 && row < this->nrow())
            m_rowStates[static_cast<size_t>(row)] = state;
    }
    ecLabeledState GetRowLabeledState(int row) const
    {
        return row >= 0 && row < this->nrow() ? m_rowStates[static_cast<size_t>(row)] : ecLabeledState();
    }
    // Column labels are kept only for the columns that were given one: a block of thousands of
    // slices usually carries none, and resizing must stay cheap.
    void SetColLabeledState(int col, const ecLabeledState& state)
    {
        if (col < 0 || col >= this->ncol())
            return;
        if (static_cast<size_t>(col) >= m_colStates.size())
            m_colStates.resize(static_cast<size_t>(col) + 1);
        m_colStates[static_cast<size_t>(col)] = state;
    }
    ecLabeledState GetColLabeledState(int col) const
    {
        return col >= 0 && static_cast<size_t>(col) < m_colStates.size() && col < this->ncol()
                   ? m_colStates[static_cast<size_t>(col)]
                   : ecLabeledState();
    }
    // Index of the first row with that label, -1 when none.
    long FindRow(const std::string& label) const
    {
        for (size_t r = 0; r < m_rowStates.size(); ++r)
            if (m_rowStates[r].Label() == label)
                return static_cast<long>(r);
        return -1;
    }
    bool DeleteLabeledRow(const std::string& label)
    {
        long row = FindRow(label);
        if (row < 0)
            return false;
        this->EraseRow(row);
        m_rowStates.erase(m_rowStates.begin() + row);
        return true;
    }
    // Rows whose labels appear in `order` come first, in that order (each label taken once);
    // the remaining rows follow in their previous order. Returns the number of rows matched.
    int SortOnRows(const std::vector<ecLabeledState>& order)
    {
        std::vector<long> perm;
        std::vector<bool> used(static_cast<size_t>(this->nrow()), false);
        for (const ecLabeledState& wanted : order) {
            for (size_t r = 0; r < m_rowStates.size(); ++r) {
                if (!used[r] && m_rowStates[r].Label() == wanted.Label()) {
                    used[r] = true;
                    perm.push_back(static_cast<long>(r));
                    break;
                }
            }
        }
        int matched = static_cast<int>(perm.size());
        for (size_t r = 0; r < used.size(); ++r)
            if (!used[r])
                perm.push_back(static_cast<long>(r));
        this->PermuteRows(perm);
        std::vector<ecLabeledState> states;
        states.reserve(perm.size());
        for (long r : perm)
            states.push_back(m_rowStates[static_cast<size_t>(r)]);
        m_rowStates.swap(states);
        return matched;
    }

protected:
    void OnResize() override
    {
        m_rowStates.resize(static_cast<size_t>(this->nrow()));
        if (m_colStates.size() > static_cast<size_t>(this->ncol()))
            m_colStates.resize(static_cast<size_t>(this->ncol()));
    }

private:
    std::vector<ecLabeledState> m_rowStates;
    std::vector<ecLabeledState> m_colStates;
};

template <typename T>
class FILELIB_API ecVBase {
public:
    // A null data pointer gives zeroed storage; otherwise the count elements are copied in.
    explicit ecVBase(long count = 0, long = 0, const T* data = nullptr)
        : m_data(static_cast<size_t>(std::max(count, 0L)), T())
    {
        if (data)
            std::copy_n(data, m_data.size(), m_data.begin());
    }
    virtual ~ecVBase() = default;
    long dim() const { return static_cast<long>(m_data.size()); }
    void resize(long count, long = 0) { m_data.resize(static_cast<size_t>(std::max(count, 0L)), T()); }
    T& operator[](long i) { return m_data[static_cast<size_t>(i)]; }
    const T& operator[](long i) const { return m_data[static_cast<size_t>(i)]; }
    T* data() { return m_data.data(); }

private:
    std::vector<T> m_data;
};

template <typename T>
class FILELIB_API ecVector : public ecVBase<T> {
public:
    using ecVBase<T>::ecVBase;
};

// C-style array helpers kept for readers that hand raw buffers around.
namespace ecArray {
template <typename T>
bool Alloc(T*& p, int n)
{
    p = nullptr;
    if (n <= 0)
        return false;
    p = new (std::nothrow) T[static_cast<size_t>(n)]();
    return p != nullptr;
}

// One contiguous block behind a table of row pointers.
template <typename T>
bool Alloc(T**& p, int rows, int cols)
{
    p = nullptr;
    if (rows <= 0 || cols <= 0)
        return false;
    T* block = new (std::nothrow) T[static_cast<size_t>(rows) * static_cast<size_t>(cols)]();
    if (!block)
        return false;
    p = new (std::nothrow) T*[static_cast<size_t>(rows)];
    if (!p) {
        delete[] block;
        return false;
    }
    for (int r = 0; r < rows; ++r)
        p[r] = block + static_cast<size_t>(r) * static_cast<size_t>(cols);
    return true;
}

template <typename T>
void Free(T*& p)
{
    delete[] p;
    p = nullptr;
}

template <typename T>
void Free(T**& p)
{
    if (p)
        delete[] p[0];
    delete[] p;
    p = nullptr;
}
}  // namespace ecArray
