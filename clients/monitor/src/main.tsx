import { render } from "preact";
import "uplot/dist/uPlot.min.css";
import { wallClock } from "./model/clock";
import { Session } from "./model/session";
import { surroundings } from "./page";
import "./style.css";
import "./safety.css";
import { App } from "./view/app";

setInterval(() => wallClock.check(), 1000);
render(<App session={new Session(surroundings())} />, document.getElementById("app")!);
