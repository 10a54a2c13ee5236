import js from "@eslint/js";
import typescript from "typescript-eslint";

export default typescript.config(
    { ignores: ["**/dist/", "**/*.config.*"] },
    js.configs.recommended,
    typescript.configs.recommendedTypeChecked,
    {
        languageOptions: { parserOptions: { projectService: true, tsconfigRootDir: import.meta.dirname } },
        rules: {
            // What JSON.parse() and a foreign library return is checked by the code that uses it.
            "@typescript-eslint/no-explicit-any": "off",
            "@typescript-eslint/no-unsafe-argument": "off",
            "@typescript-eslint/no-unsafe-assignment": "off",
            "@typescript-eslint/no-unsafe-call": "off",
            "@typescript-eslint/no-unsafe-member-access": "off",
            "@typescript-eslint/no-unsafe-return": "off",
        },
    },
    {
        files: ["monitor/src/model/**"],
        rules: {
            "no-restricted-globals": ["error", "window", "document", "location", "localStorage", "navigator", "fetch"],
        },
    },
);
