// A gauge of the motor's speed, with a slider for its set point: gauge ADDRESS
#include <vorbel/vorbelclient.h>

#include <QGuiApplication>
#include <QQmlEngine>
#include <QQuickView>

int main(int count, char *words[])
{
    QGuiApplication application(count, words);
    qmlRegisterType<VorbelClient>("Vorbel", 1, 0, "VorbelClient");
    QQuickView view;
    view.setTitle("Motor");
    view.setResizeMode(QQuickView::SizeRootObjectToView);
    view.setInitialProperties({{"address", count > 1 ? words[1] : "localhost"}});
    view.setSource(QUrl("qrc:/gauge.qml"));
    view.show();
    return QGuiApplication::exec();
}
