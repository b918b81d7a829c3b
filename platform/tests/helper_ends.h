// Processes that connect uninvited, end, or do not want to end.
#ifndef RUNTIME_MANAGER_TESTS_HELPER_ENDS_H
#define RUNTIME_MANAGER_TESTS_HELPER_ENDS_H

#include <QtCore/QCoreApplication>
#include <QtCore/QString>
#include <memory>

namespace helper {

void Say(const QString& text);

// Connects to the socket of a task as soon as it is there, and tells what becomes of it.
int Intrude();
// Starts `count` tasks that nobody stops, and leaves when all run: by exit(), by a return from
// main(), or by a return while the tasks are objects of main().
int StartMany(const QString& name, int count, const QString& how);
// A task that ignores SIGTERM, and serves its socket, has started a task of its own, or has nothing but
// an event loop.
int IgnoreTheEnd(const QString& how);
// Serves `listening`. At the first message it sends 20 messages of 100,013 bytes and leaves by
// exit(). Meanwhile another of its threads ends the connection ("end"), or sends one more ("send"), and
// tells in the file "done" whether that was in time, before the exit was over.
int LeaveWhileWriting(int listening, const QString& how);
// Talks in `application` to a task that answers with its process id, ends the application while the
// objects stay, and does the same in another one, where it kills the task. What has come of each.
int ServeTwoApplications(const QString& task, std::unique_ptr<QCoreApplication> application,
                         int count, char** arguments);

}  // namespace helper

#endif  // RUNTIME_MANAGER_TESTS_HELPER_ENDS_H
