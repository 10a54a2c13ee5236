import QtQuick 2.15
import Vorbel 1.0

Rectangle {
    id: window

    property alias address: bus.address
    // Asked for again when values have come, and what the schema says when there is another.
    property var speed: bus.latest && bus.meant("motor.speed")
    readonly property var limits: bus.schema && bus.members("motor.speed")
    readonly property var setpoint: bus.schema && bus.members("motor.setpoint")
    readonly property var colours: ({alarm: "crimson", warn: "orange"})

    function angleOf(value) {
        const share = (value - limits.bounds.low) / (limits.bounds.high - limits.bounds.low)
        return dial.start + 1.5 * Math.PI * Math.max(0, Math.min(1, share))
    }

    width: 320
    height: 360
    color: "white"

    VorbelClient {
        id: bus

        schema: ({motor: {speed: {"@mac": 5, "@cmd": 2, "@format": "s", unit: "rpm", min: 0, max: 3000,
                                  warn: [null, 2500], alarm: [null, 2800]},
                          setpoint: {"@mac": 5, "@cmd": 3, "@format": "s", unit: "rpm", min: 0, max: 2500}}})
        active: true
    }

    Canvas {
        id: dial

        // From the lower left clockwise to the lower right.
        readonly property real start: 0.75 * Math.PI
        readonly property real angle: window.speed ? window.angleOf(window.speed.value) : start

        anchors { fill: parent; bottomMargin: 80 }
        opacity: bus.connected ? 1 : 0.3
        onAngleChanged: requestPaint()
        onPaint: {
            const context = getContext("2d")
            const radius = Math.min(width, height) / 2 - 20
            context.reset()
            context.translate(width / 2, height / 2)
            context.lineWidth = 16
            context.strokeStyle = "lightgray"
            context.beginPath()
            context.arc(0, 0, radius, start, start + 1.5 * Math.PI)
            context.stroke()
            context.strokeStyle = window.speed && window.colours[window.speed.level] || "steelblue"
            context.beginPath()
            context.arc(0, 0, radius, start, angle)
            context.stroke()
            context.lineWidth = 4
            for (const level of ["warn", "alarm"]) {
                context.strokeStyle = window.colours[level]
                context.beginPath()
                context.arc(0, 0, radius + 12, window.angleOf(window.limits[level].high), start + 1.5 * Math.PI)
                context.stroke()
            }
        }
    }

    Text {
        anchors.centerIn: dial
        font.pixelSize: 40
        text: bus.connected && window.speed ? window.speed.shown : "–"
    }

    // Sets the motor's speed where it is released.
    MouseArea {
        id: slider

        property string answer
        readonly property string invitation:
            `Set point: ${window.setpoint.bounds.low} to ${window.setpoint.bounds.high} ${window.setpoint.unit}`

        anchors { left: parent.left; right: parent.right; bottom: parent.bottom; margins: 20 }
        height: 40
        enabled: bus.connected
        onReleased: {
            const ends = window.setpoint.bounds
            const value = Math.round(ends.low + (ends.high - ends.low) * mouse.x / width)
            const result = bus.set("motor.setpoint", value)
            answer = result.isSent ? result.written[0].text() : result.error
        }

        Rectangle {
            anchors.fill: parent
            color: "whitesmoke"
            border.color: "lightgray"
        }

        Text {
            anchors.centerIn: parent
            width: parent.width
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.Wrap
            text: bus.connected ? slider.answer || slider.invitation : bus.trouble
        }
    }
}
