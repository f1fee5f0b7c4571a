#pragma once

/// Something that can be run.
class QelClosure {
public:
    virtual ~QelClosure() = default;
    virtual bool Go() = 0;

protected:
    QelClosure() = default;
    QelClosure(const QelClosure&) = default;
    QelClosure& operator=(const QelClosure&) = default;
};

/// How far a piece of work has come, for a host that shows it.
class QelProgress {
public:
    virtual ~QelProgress() = default;
    /// What kind of work this is; 0 where nothing is known.
    [[nodiscard]] virtual int Kind() const = 0;
    /// From 0.0 to 1.0.
    [[nodiscard]] virtual double Fraction() const = 0;

protected:
    QelProgress() = default;
    QelProgress(const QelProgress&) = default;
    QelProgress& operator=(const QelProgress&) = default;
};

/// A closure that runs piece by piece, so that its caller has control between the
/// pieces: call Step until IsDone.
class QelContinuation : public QelClosure {
public:
    /// Runs the remaining steps to the end. A failed step does not stop the run;
    /// the result is false when any step failed. True at once when already done.
    bool Go() override;
    /// Does the next piece; false on failure.
    virtual bool Step() = 0;
    [[nodiscard]] virtual bool IsDone() const = 0;
    /// This work's progress, or null when it keeps none.
    [[nodiscard]] virtual const QelProgress* GetProgress() const { return nullptr; }
};

/// A continuation whose current run can be given up between steps; it may then be
/// started afresh.
class QelRestartableContinuation : public QelContinuation {
public:
    virtual void Abort() = 0;
};
