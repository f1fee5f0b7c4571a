#pragma once

/// A base for objects that have an identity: aborters, threads, sync objects.
class QelNoncopyable {
public:
    QelNoncopyable(const QelNoncopyable&) = delete;
    QelNoncopyable& operator=(const QelNoncopyable&) = delete;

protected:
    QelNoncopyable() = default;
    ~QelNoncopyable() = default;
};
