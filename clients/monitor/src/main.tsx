import { render } from "preact";
import "uplot/dist/uPlot.min.css";
import { Session } from "./model/session";
import "./style.css";
import { App } from "./view/app";

render(<App session={new Session()} />, document.getElementById("app")!);
